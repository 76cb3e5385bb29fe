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

// Of the pipe on standard input.
int bytes_standing()
{
    int standing = 0;
    return ioctl(STDIN_FILENO, FIONREAD, &standing) == 0 ? standing : 0;
}

void pause_for(pipe_pace& pace)
{
    pipe_level level{.capacity = fcntl(STDIN_FILENO, F_GETPIPE_SZ)};
    if (level.capacity <= 0)
        return; // no pipe
    level.standing = bytes_standing();
    const int pause_ms = pause_before_read(pace, level);
    if (pause_ms == 0)
        return;

    const timespec pause{.tv_sec = 0, .tv_nsec = pause_ms * 1'000'000L};
    std::ignore = nanosleep(&pause, nullptr); // a shorter pause is as good
    level.standing = bytes_standing();
    note_pause(pace, level);
}

} // namespace

bool refill_until(sliding_window_v4* in_mts, PIDmap& pm, pipe_pace& pace, uint64_t wanted)
{
    constexpr uint64_t as_much_as_fits = 0;
    sliding_window_v4_lazy_flush(in_mts);
    while (static_cast<uint64_t>(in_mts->end - in_mts->data) < wanted) {
        if (pm.eof)
            return false;
        pause_for(pace);
        const int64_t got = sliding_window_v4_refill_from_fd(in_mts, STDIN_FILENO, as_much_as_fits);
        if (got < 0)
            pm.eof = true;
        else
            note_read(pace, static_cast<uint64_t>(got));
    }
    return true;
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
