#include "toolkit/io/sliding_window.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <tuple>

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr std::align_val_t large_page{2 * 1024 * 1024};

} // namespace

sliding_window_v4* sliding_window_v4_create_buffer(uint64_t capacity)
{
    auto* buffer = new (large_page, std::nothrow) uint8_t[capacity];
    if (buffer == nullptr)
        return nullptr;
    // All input passes this memory, and large pages spare the lookups of its addresses. Without
    // them it is only slower.
    std::ignore = madvise(buffer, capacity, MADV_HUGEPAGE);

    auto* window = new (std::nothrow) sliding_window_v4{
        .buffer = buffer, .buffer_fence = buffer + capacity, .data = buffer, .end = buffer};
    if (window == nullptr)
        operator delete[](buffer, large_page);
    return window;
}

void sliding_window_v4_destroy(sliding_window_v4* window)
{
    if (window == nullptr)
        return;
    operator delete[](window->buffer, large_page);
    delete window;
}

uint64_t sliding_window_v4_alloc_length(const sliding_window_v4* window)
{
    return static_cast<uint64_t>(window->buffer_fence - window->buffer);
}

void sliding_window_v4_lazy_flush(sliding_window_v4* window)
{
    const auto room_from_data = static_cast<uint64_t>(window->buffer_fence - window->data);
    if (room_from_data >= sliding_window_v4_alloc_length(window) / 4)
        return;

    const auto unconsumed = window->end - window->data;
    std::memmove(window->buffer, window->data, static_cast<size_t>(unconsumed));
    window->data = window->buffer;
    window->end = window->buffer + unconsumed;
}

int64_t sliding_window_v4_refill_from_fd(sliding_window_v4* window, int32_t fd, uint64_t limit)
{
    auto room = static_cast<uint64_t>(window->buffer_fence - window->end);
    if (limit != 0)
        room = std::min(room, limit);
    if (room == 0)
        return 0; // read(2) of 0 bytes would look like the end of the input

    const ssize_t got = read(fd, window->end, room);
    if (got > 0) {
        window->end += got;
        return got;
    }
    if (got == 0)
        return -1;
    if (errno == EINTR)
        return 0;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
        return -1;

    pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&readable, 1, -1) < 0 && errno != EINTR)
        return -1;
    return 0;
}
