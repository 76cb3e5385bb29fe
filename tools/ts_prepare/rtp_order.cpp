#include "tools/ts_prepare/rtp_order.hpp"

#include <cstdlib>
#include <utility>

#include "toolkit/ts/ts_packet.hpp"

namespace
{

// A number so far off belongs to a source that began anew.
constexpr int most_distance = 3000;

// How far a sequence number lies ahead of the one that is due; negative: behind.
int distance_ahead(const rtp_order& order, uint16_t sequence_number)
{
    return static_cast<int16_t>(static_cast<uint16_t>(sequence_number - order.next));
}

size_t slot_of(uint16_t sequence_number)
{
    return sequence_number % rtp_window;
}

bool begins_anew(const rtp_order& order, uint16_t sequence_number, uint32_t ssrc)
{
    const int ahead = distance_ahead(order, sequence_number);
    // A source that begins anew may well do so a little behind.
    return !order.begun || order.ssrc != ssrc || std::abs(ahead) > most_distance ||
           (ahead < 0 && order.late >= rtp_window);
}

rtp_fate fate_of(rtp_order& order, uint16_t sequence_number, int64_t now_us)
{
    const int ahead = distance_ahead(order, sequence_number);
    const size_t slot = slot_of(sequence_number);
    if (ahead < 0 || (ahead < static_cast<int>(rtp_window) && order.is_kept[slot])) {
        order.duplicates++;
        order.late += ahead < 0;
        return rtp_fate::drop;
    }
    order.late = 0;
    if (ahead == 0 || ahead >= static_cast<int>(rtp_window)) {
        order.lost += static_cast<uint64_t>(ahead);
        order.next = static_cast<uint16_t>(sequence_number + 1);
        return rtp_fate::pass;
    }
    order.waiting++;
    order.is_kept[slot] = true;
    order.kept_us[slot] = now_us;
    order.kept[slot].clear();
    return rtp_fate::keep;
}

} // namespace

bool is_beyond_window(const rtp_order& order, uint16_t sequence_number, uint32_t ssrc)
{
    return order.waiting != 0 &&
           (begins_anew(order, sequence_number, ssrc) ||
            distance_ahead(order, sequence_number) >= static_cast<int>(rtp_window));
}

rtp_fate begin_datagram(rtp_order& order, uint16_t sequence_number, uint32_t ssrc, int64_t now_us)
{
    if (begins_anew(order, sequence_number, ssrc)) {
        order.begun = true;
        order.ssrc = ssrc;
        order.next = sequence_number;
        order.late = 0;
    }
    order.in_hand = sequence_number;
    order.fate = fate_of(order, sequence_number, now_us);
    return order.fate;
}

void keep_packet(rtp_order& order, const uint8_t* packet)
{
    constexpr size_t most_bytes = 65536; // of a datagram
    std::vector<uint8_t>& kept = order.kept[slot_of(order.in_hand)];
    if (kept.size() + ts_packet_bytes <= most_bytes)
        kept.insert(kept.end(), packet, packet + ts_packet_bytes);
}

// Of those that wait, the first one in their order has to go next.
bool waited_too_long(const rtp_order& order, int64_t now_us)
{
    if (order.waiting == 0)
        return false;
    uint16_t first = order.next;
    while (!order.is_kept[slot_of(first)])
        first++;
    return now_us - order.kept_us[slot_of(first)] >= rtp_longest_wait_us;
}

void skip_missing(rtp_order& order)
{
    if (order.waiting == 0)
        return;
    for (; !order.is_kept[slot_of(order.next)]; order.next++)
        order.lost++;
}

bool take_ordered_datagram(rtp_order& order, std::vector<uint8_t>& packets)
{
    const size_t slot = slot_of(order.next);
    if (order.waiting == 0 || !order.is_kept[slot])
        return false;
    if (order.in_hand == order.next && order.fate == rtp_fate::keep)
        order.fate = rtp_fate::pass; // the rest of it follows at once
    order.is_kept[slot] = false;
    order.waiting--;
    order.next++;
    order.reordered++;
    packets = std::move(order.kept[slot]);
    return true;
}
