// Multiplexes a whole programme, packet by packet in the order of the calls: tables, pictures and
// audio frames with exact time stamps, padding and garbage. Offsets into the stream tell a test
// which bytes belong into which fragment.
#pragma once

#include "tests/support/h264_access_unit.hpp"
#include "tests/support/mpeg_video_builder.hpp"
#include "tests/support/packetiser.hpp"
#include "tests/support/pes_builder.hpp"
#include "tests/support/psi_builder.hpp"

enum class video_codec { none, h264, mpeg2 };
enum class audio_codec { none, mpeg, aac };

struct programme_fields {
    uint16_t number = 1;
    uint16_t pmt_pid = 0x1000;
    uint16_t video_pid = 0x101;
    uint16_t audio_pid = 0x102;
    uint16_t sap_pid = 0x103;
    video_codec video = video_codec::h264;
    audio_codec audio = audio_codec::aac;
    audio_codec sap = audio_codec::none;
    h264_picture_size picture_size = {};
};

// The program reads this much of its input before it starts work.
constexpr size_t start_up_fill_bytes = 0x200000;

class stream_builder
{
public:
    explicit stream_builder(const programme_fields& programme = {});

    // What the programme's tables say; may be changed before they are sent (again).
    pat_fields pat;
    pmt_fields pmt;

    // One PAT and one PMT packet, `times` times. A one-packet section is handled when the next one
    // of its PID begins, so a programme is known after three pairs.
    stream_builder& tables(size_t times = 1);

    // Three pairs of tables, then null packets up to the start-up fill: what follows is seen only
    // once the programme is known, and short streams are long enough to be accepted.
    stream_builder& start_up();

    // One picture of the programme's video as one PES packet.
    stream_builder& keyframe(int64_t pts, size_t filler_bytes = 200);
    stream_builder& picture(int64_t pts, size_t filler_bytes = 100); // no keyframe

    // One PES packet of the programme's (secondary) audio.
    stream_builder& audio(int64_t pts, size_t payload_bytes = 150);
    stream_builder& sap(int64_t pts, size_t payload_bytes = 150);
    stream_builder& aac_frame(int64_t pts,
                              size_t bytes = 150); // of the audio, with its ADTS header

    // Any PES packet on any PID.
    stream_builder& pes(uint16_t pid, const pes_fields& fields);

    // One packet as it stands, but for the PID's next continuity counter.
    stream_builder& packet(const ts_fields& fields);

    stream_builder& null(size_t count);
    stream_builder& null_until(size_t bytes); // the stream has at least this many bytes

    // Bytes that need not be packets.
    stream_builder& raw(std::span<const uint8_t> more);

    // Where the next packet will begin.
    [[nodiscard]] size_t mark() const { return bytes_.size(); }

    [[nodiscard]] const byte_string& bytes() const { return bytes_; }
    [[nodiscard]] byte_string from(size_t begin) const { return between(begin, bytes_.size()); }
    [[nodiscard]] byte_string between(size_t begin, size_t end) const;

private:
    programme_fields programme_;
    packetiser packets_;
    byte_string bytes_;
};
