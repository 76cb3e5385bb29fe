#include "v2/input.hpp"

#include <algorithm>
#include <cstddef>

#include <unistd.h>

#include "toolkit/ts/ts_packet.hpp"

namespace
{

constexpr std::ptrdiff_t sync_bytes_in_a_row = 8;

} // namespace

bool refill_until(sliding_window_v4* in_mts, PIDmap& pm, uint64_t wanted, refill_amount amount)
{
    sliding_window_v4_lazy_flush(in_mts);
    for (;;) {
        const auto buffered = static_cast<uint64_t>(in_mts->end - in_mts->data);
        if (buffered >= wanted)
            return true;
        const uint64_t limit = amount == refill_amount::missing_only ? wanted - buffered : 0;
        if (pm.eof || sliding_window_v4_refill_from_fd(in_mts, STDIN_FILENO, limit) < 0) {
            pm.eof = true;
            return false;
        }
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
