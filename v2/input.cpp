#include "v2/input.hpp"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <tuple>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "toolkit/ts/ts_packet.hpp"

namespace
{

constexpr std::ptrdiff_t sync_bytes_in_a_row = 8;

// A live source writes a few packets at a time, and waking up for each write costs more than all
// work on its packets. They are needed only when the look-ahead of 1.5 MB has moved on to them, so
// where less than a batch stands in the pipe, a pause lets more come together. It grows or shrinks
// until it brings a batch and no more than the pipe holds with ease.
constexpr int batch_bytes = 16 * 1024;
constexpr int large_batch_bytes = 40 * 1024;
constexpr int shortest_pause_ms = 1;
constexpr int longest_pause_ms = 32;

// A pipe that is nearly full after a pause was filled by a source that is faster, or is catching
// up. It must not be held up: so much is read before the next pause.
constexpr uint64_t flood_bytes = 1024 * 1024;

// Bytes that stand in the pipe on standard input.
int bytes_in_pipe()
{
    int ready = 0;
    return ioctl(STDIN_FILENO, FIONREAD, &ready) == 0 ? ready : 0;
}

// Does nothing where standard input is no pipe, or one too small to hold batches.
void let_a_batch_come(PIDmap& pm)
{
    const int capacity = fcntl(STDIN_FILENO, F_GETPIPE_SZ);
    if (capacity < 4 * batch_bytes || pm.unpaused_bytes > 0 || bytes_in_pipe() >= batch_bytes)
        return;

    const timespec pause{.tv_sec = 0, .tv_nsec = pm.pause_ms * 1'000'000L};
    std::ignore = nanosleep(&pause, nullptr); // a shorter pause is as good
    const int ready = bytes_in_pipe();
    if (ready < batch_bytes)
        pm.pause_ms = std::min(2 * pm.pause_ms, longest_pause_ms);
    else if (ready >= large_batch_bytes)
        pm.pause_ms = std::max(pm.pause_ms / 2, shortest_pause_ms);
    if (ready >= capacity / 4 * 3)
        pm.unpaused_bytes = flood_bytes;
}

} // namespace

bool refill_until(sliding_window_v4* in_mts, PIDmap& pm, uint64_t wanted, refill_amount amount)
{
    sliding_window_v4_lazy_flush(in_mts);
    for (;;) {
        const auto buffered = static_cast<uint64_t>(in_mts->end - in_mts->data);
        if (buffered >= wanted)
            return true;
        if (pm.eof)
            return false;

        uint64_t limit = 0;
        if (amount == refill_amount::missing_only)
            limit = wanted - buffered;
        else
            let_a_batch_come(pm);
        const int64_t got = sliding_window_v4_refill_from_fd(in_mts, STDIN_FILENO, limit);
        pm.eof = got < 0;
        if (got > 0)
            pm.unpaused_bytes -= std::min(pm.unpaused_bytes, static_cast<uint64_t>(got));
    }
}

bool synchronise(sliding_window_v4* in_mts)
{
    constexpr auto packet_bytes = static_cast<std::ptrdiff_t>(ts_packet_bytes);
    in_mts->data = std::find(in_mts->data, in_mts->end, ts_sync_byte);
    const std::ptrdiff_t whole_packets = (in_mts->end - in_mts->data) / packet_bytes;
    const std::ptrdiff_t checked = std::min(whole_packets, sync_bytes_in_a_row);
    for (std::ptrdiff_t k = 1; k < checked; k++) {
        if (in_mts->data[k * packet_bytes] != ts_sync_byte) {
            in_mts->data++;
            return false;
        }
    }
    return true;
}
