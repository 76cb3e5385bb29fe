// Puts datagrams in the order of their sequence numbers (RFC 3550, 5.1) within a small window,
// leaves out those that come twice, and counts those that do not come. Datagrams in order pass
// without being kept.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

constexpr size_t rtp_window = 64; // datagrams
constexpr int64_t rtp_longest_wait_us = 50'000;

enum class rtp_fate { pass, keep, drop };

struct rtp_order {
    bool begun = false;
    uint32_t ssrc = 0;
    uint16_t next = 0;              // sequence number that is due
    uint16_t in_hand = 0;           // of the datagram that began last
    rtp_fate fate = rtp_fate::pass; // of its packets
    size_t late = 0;                // datagrams in a row that came after their turn
    size_t waiting = 0;             // datagrams kept
    std::array<bool, rtp_window> is_kept{};
    std::array<int64_t, rtp_window> kept_us{};         // when it came
    std::array<std::vector<uint8_t>, rtp_window> kept; // by sequence number modulo the window

    uint64_t lost = 0;
    uint64_t duplicates = 0;
    uint64_t reordered = 0;
};

// Whether datagrams that are kept have to go first, for this one lies beyond the window.
bool is_beyond_window(const rtp_order& order, uint16_t sequence_number, uint32_t ssrc);

// A datagram begins: what becomes of its packets. Before that the caller takes what
// take_ordered_datagram has.
rtp_fate begin_datagram(rtp_order& order, uint16_t sequence_number, uint32_t ssrc, int64_t now_us);

// A packet of the datagram in hand, whose fate is `keep`.
void keep_packet(rtp_order& order, const uint8_t* packet);

// Whether the wait for a missing datagram has lasted too long.
bool waited_too_long(const rtp_order& order, int64_t now_us);

// Gives up the datagrams that are missing before the first one that is kept.
void skip_missing(rtp_order& order);

// The packets of the next datagram that was kept and whose turn it is; false when there is none.
[[nodiscard]] bool take_ordered_datagram(rtp_order& order, std::vector<uint8_t>& packets);
