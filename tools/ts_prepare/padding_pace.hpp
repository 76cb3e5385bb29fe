// How many null packets fill the stream up to a constant bit rate: what the clock allows, less what
// has gone out. Time is passed in.
#pragma once

#include <cstddef>
#include <cstdint>

struct padding_pace {
    int64_t bits_per_second = 0;
    size_t most_packets = SIZE_MAX; // at a time
    int64_t last_us = -1;           // when it was asked last; -1: never
    int64_t credit = 0; // what may go out, in millionths of a bit; negative: too much went out
};

// Null packets to send now, after `sent_bytes` went out since the last call. They count as sent. A
// clock that stood still, or input that was faster, is made good for no longer than a moment.
size_t padding_due(padding_pace& pace, int64_t now_us, size_t sent_bytes);
