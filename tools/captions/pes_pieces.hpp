// Follows the PES packets of one PID, ISO/IEC 13818-1, 2.4.3.6, transport packet by transport
// packet, without gathering them: the payload goes on as it comes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "toolkit/ts/ts_packet.hpp"

// What one transport packet brings, in this order. The payload points into the packet.
struct pes_piece {
    bool lost_before = false; // transport packets are missing
    bool ends_before = false; // the PES packet before has ended, or nothing more of it is sound
    bool begins = false;
    std::optional<int64_t> pts; // of the one that begins, 33 bits
    std::optional<int64_t> dts;
    std::span<const uint8_t> payload;
    bool ends = false; // the last byte has come
};

struct pes_pieces {
    pes_piece take(const mpeg_ts_packet& packet);

    // What comes next has lost its beginning.
    void drop();

    // Nothing more of the PES packet at hand is wanted.
    void pass_over() { at = state::outside; }

    // A packet that begins nothing was not given to take(), since none had begun.
    void skip() { continuity_counter = -1; }

    enum class state {
        outside, // no PES packet has begun, or it is not sound
        header,
        payload,
    };
    state at = state::outside;
    std::vector<uint8_t> header;        // as far as it has come
    std::optional<size_t> payload_left; // bytes; none: up to the next PES packet
    int continuity_counter = -1;        // -1: not known

    void take_header(std::span<const uint8_t>& bytes, pes_piece& piece);
};
