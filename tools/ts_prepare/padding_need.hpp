// Whether padding brings anything forward.
//
// The reader, vorn_mpegts_to_hls, begins when it has read 2 MiB, and handles a packet when 1.5 MB
// have come behind it. But a picture is seen no sooner than the fragment ends in which it is. So
// padding goes on behind a keyframe until the reader has come to it, and behind the last packet
// when no more come; in between the reader is spared it. At 8 Mbit/s and 40 with padding, a
// keyframe every two seconds, four fifths of the padding are not needed.
#pragma once

#include <cstddef>
#include <cstdint>

struct padding_need {
    uint64_t sent = 0;        // bytes in all
    uint64_t since_input = 0; // bytes of padding since the last byte of the input
    uint64_t since_cut = 0;   // bytes since the last packet at which a fragment may end
    int64_t cut_us = -1;      // when that packet was sent; -1: there was none yet
};

enum class input_flow { comes, pauses };

// Bytes of the input, or made for it, went out; with them, or not, a packet at which a fragment may
// end.
void note_output(padding_need& need, size_t bytes, bool fragment_may_end, int64_t now_us);
void note_padding(padding_need& need, size_t bytes);

[[nodiscard]] bool padding_helps(const padding_need& need, input_flow flow, int64_t now_us);

// Whether the reader has come to all of the input.
[[nodiscard]] bool is_flushed(const padding_need& need);
