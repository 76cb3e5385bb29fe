// What is in a stream, gathered from its beginning: programmes, tables, keyframes, and what
// vorn_mpegts_to_hls makes of them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "toolkit/ts/section_gatherer.hpp"
#include "toolkit/ts/table_assembly.hpp"
#include "tools/ts_prepare/continuity.hpp"
#include "tools/ts_prepare/keyframe_test.hpp"
#include "tools/ts_prepare/packet_framing.hpp"

// The program's window and what it keeps unread of it. On a pipe work begins with 2 MiB in it, on a
// regular file with all that it holds.
constexpr uint64_t program_fill_bytes = 2 << 20;
constexpr uint64_t program_window_bytes = 8 << 20;
constexpr uint64_t program_look_ahead_bytes = 1540096;

enum class stream_use {
    video,           // fragments are cut at its keyframes
    audio,           // the audio rendition; where there is no video, fragments are cut at it
    secondary_audio, // the rendition of --sap
    passed,          // in the fragments, but in no rendition of its own
};

struct described_stream {
    uint8_t stream_type = 0;
    uint16_t pid = 0;
    const char* codec = "";
    stream_use use = stream_use::passed;
};

struct described_programme {
    uint16_t number = 0;
    uint16_t pmt_pid = 0;
    uint16_t pcr_pid = 0;
    bool has_pmt = false;
    std::vector<described_stream> streams;
};

struct table_distance {
    uint64_t count = 0;
    uint64_t last_at = 0; // byte of the stream
    uint64_t longest = 0; // bytes from one to the next, and from the beginning to the first
};

// A place where a fragment may begin.
struct cut_point {
    int64_t pts = 0;
    uint64_t at = 0; // byte of the stream
};

struct stream_description {
    packet_format format = packet_format::unknown;
    uint64_t bytes = 0;      // of packets of 188
    bool whole = false;      // the stream has ended within them
    int64_t clock_ticks = 0; // that passed, by the PCR of the programme that is followed
    std::vector<described_programme> programmes;
    size_t followed = SIZE_MAX; // its place in `programmes`; SIZE_MAX: none
    table_distance pat;
    table_distance pmt;
    uint64_t tables_known_at = 0; // byte up to which the program has taken both; 0: not yet
    std::vector<cut_point> cut_points;
    bool cut_at_audio = false;
    uint64_t continuity_errors = 0;
    uint64_t transport_errors = 0;
    uint64_t skipped_bytes = 0;
};

// The program does not begin with less than 2 MiB.
bool is_too_short(const stream_description& description);

bool starts_on_pipe(const stream_description& description);
bool starts_from_file(const stream_description& description);

// The byte of the stream from which a keyframe may begin the program's output: the tables come
// first, unless vorn_ts_prepare has to put them in front for it to start at all.
uint64_t output_begins_at(const stream_description& description);

// Seconds of each fragment with its end in what was read, when output begins behind the byte
// `from`.
std::vector<double> fragment_durations(const stream_description& description, int frag_duration,
                                       uint64_t from);

struct stream_describer {
    stream_describer();

    stream_description description;
    packet_framing framing;
    continuity_check continuity;
    ts_section_gatherer pat_sections;
    std::vector<ts_section_gatherer> pmt_sections; // beside description.programmes

    mpeg_ts_table_assembly pat_of_program; // as the program gathers them
    mpeg_ts_table_assembly pmt_of_program;
    uint16_t locked_pmt_pid = 0;

    int64_t last_pcr = -1;
    uint16_t followed_pid = 0; // of the video, or of the audio where there is no video
    uint8_t followed_type = 0;
    std::vector<uint8_t> picture; // the beginning of the PES payload in hand
    cut_point picture_at;
    bool in_picture = false;
    h264_sets sets;
};

// Takes bytes of the stream and returns how many; the rest has to be passed in again.
size_t describe_bytes(stream_describer& describer, std::span<uint8_t> bytes, more_input more);

// The stream has ended, or no more of it is looked at.
void end_description(stream_describer& describer, bool whole);
