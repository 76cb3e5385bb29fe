// Cuts a transport stream that comes in pieces of any size into its packets, and finds them again
// where bytes were lost.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "toolkit/ts/ts_packet.hpp"

struct packet_splitter {
    // `on_packet` is given 188 bytes that begin with a sync byte, and may write there. They are
    // valid during the call.
    template <typename OnPacket>
    void feed(std::span<uint8_t> bytes, OnPacket&& on_packet);

    // Bytes are missing behind what was fed.
    void drop() { held = 0; }

    std::array<uint8_t, ts_packet_bytes> begun = {}; // a packet that is not whole yet
    size_t held = 0;                                 // bytes of it
};

template <typename OnPacket>
void packet_splitter::feed(std::span<uint8_t> bytes, OnPacket&& on_packet)
{
    while (!bytes.empty()) {
        if (held == 0 && bytes.front() != ts_sync_byte) {
            const auto sync = std::find(bytes.begin(), bytes.end(), ts_sync_byte);
            bytes = bytes.subspan(static_cast<size_t>(sync - bytes.begin()));
            continue;
        }
        if (held == 0 && bytes.size() >= ts_packet_bytes) {
            on_packet(bytes.first(ts_packet_bytes));
            bytes = bytes.subspan(ts_packet_bytes);
            continue;
        }
        const size_t taken = std::min(bytes.size(), ts_packet_bytes - held);
        std::copy_n(bytes.begin(), taken, begun.begin() + static_cast<std::ptrdiff_t>(held));
        bytes = bytes.subspan(taken);
        held += taken;
        if (held == ts_packet_bytes) {
            held = 0;
            on_packet(std::span<uint8_t>(begun));
        }
    }
}
