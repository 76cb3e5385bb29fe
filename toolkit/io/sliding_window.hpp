// The byte window through which all of the input is read. It is the only copy of the input:
// consumers take packets in place from `data` and may look ahead up to `end`. Consumed bytes stay
// valid until the next flush.
#pragma once

#include <cstdint>
#include <memory>

#include "toolkit/owner.hpp"

// buffer <= data <= end <= buffer_fence. Consumers advance `data` themselves; nothing else moves
// it forward.
struct sliding_window_v4 {
    uint8_t* buffer = nullptr;       // start of the allocation
    uint8_t* buffer_fence = nullptr; // one past the end of the allocation
    uint8_t* data = nullptr;         // the next unconsumed byte
    uint8_t* end = nullptr;          // one past the last buffered byte
};

// A window of `capacity` bytes, empty; null when there is no memory for it.
[[nodiscard]] sliding_window_v4* sliding_window_v4_create_buffer(uint64_t capacity);

void sliding_window_v4_destroy(sliding_window_v4* window);

using sliding_window_v4_ptr =
    std::unique_ptr<sliding_window_v4, destroy_with<sliding_window_v4_destroy>>;

// buffer_fence - buffer.
uint64_t sliding_window_v4_alloc_length(const sliding_window_v4* window);

// Makes room at the back. The unconsumed bytes move to the front only when less than a quarter of
// the allocation lies between `data` and the fence, so a request for up to a quarter always fits
// afterwards, while a byte is rarely moved: with L bytes kept unread, L bytes move per three
// quarters of the capacity consumed. Pointers into the window taken before a flush are invalid
// after it.
void sliding_window_v4_lazy_flush(sliding_window_v4* window);

// Reads once from `fd` into the free space, at most `limit` bytes (0: as much as fits), and
// advances `end`. Returns the bytes read; 0 when nothing was read, so try again; negative at the
// end of the input or on a read error. An interrupted read returns 0; where a non-blocking
// descriptor has nothing to read, the call waits for it to become readable and returns 0.
[[nodiscard]] int64_t sliding_window_v4_refill_from_fd(sliding_window_v4* window, int32_t fd,
                                                       uint64_t limit);
