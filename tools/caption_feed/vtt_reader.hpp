// Reads WebVTT as it arrives, in pieces of any size, with the tolerance of the W3C parser: a byte
// order mark, any kind of line break, NOTE, STYLE and REGION blocks, hours left out, cues that
// follow each other without an empty line. A cue is complete at the empty line behind it.
//
// Beyond that text, a header in the middle ("WEBVTT" at the start of a block) begins a new file, so
// that a live source may write one segment after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tools/caption_feed/caption_cue.hpp"
#include "tools/caption_feed/vtt_timing.hpp"

// What was wrong and at which line, from 1.
struct vtt_problem {
    size_t line = 0;
    std::string text;
};

constexpr size_t vtt_line_bytes_max = 65536; // a line, and the text of a cue

struct vtt_reader {
    // Where a source without X-TIMESTAMP-MAP has its time 0 on the stream's clock.
    uint64_t base_ticks = 0;

    // The next bytes of the source.
    void feed(std::string_view bytes);

    // The source has ended: completes what has been read. The next bytes begin a new file.
    void finish();

    // What has been read; the caller takes it from here.
    std::deque<caption_cue> cues;
    std::vector<vtt_problem> problems;

    enum class state {
        signature, // before the first line
        header,    // up to the first empty line
        blocks,
        rejected, // no WebVTT; the rest is ignored
    };
    struct block {
        size_t lines = 0;
        bool seen_arrow = false;
        bool has_cue = false;
        std::string first_line;
        caption_cue cue;
    };

    state at = state::signature;
    size_t line_number = 0;
    std::string partial_line;
    bool line_too_long = false;
    bool after_cr = false; // an LF that comes next belongs to the same line break
    timestamp_map map;
    block current;
};
