// When to pause before a pipe is read.
//
// A live source writes a few packets at a time, and waking up for each write costs more than all
// work on its packets. They are needed only when the look-ahead of 1.5 MB has moved on to them, so
// where less than a batch stands in the pipe, a pause lets more come together. Nothing here reads,
// waits or looks at a clock: the reader tells what stands in the pipe, and does as it is told.
#pragma once

#include <cstdint>

// What the reader has learned about its source. `main` owns it.
struct pipe_pace {
    int pause_ms = 8;            // grows or shrinks until a pause brings a batch, and little more
    uint64_t unpaused_bytes = 0; // to be read before the next pause, because the source is fast
};

struct pipe_level {
    int capacity = 0; // bytes that the pipe holds
    int standing = 0; // bytes in it now
};

// Milliseconds to wait before the next read; 0: read at once.
[[nodiscard]] int pause_before_read(const pipe_pace& pace, const pipe_level& now);

// Learns from what stands in the pipe once a pause is over.
void note_pause(pipe_pace& pace, const pipe_level& after);

void note_read(pipe_pace& pace, uint64_t bytes);
