// Builds one packet for the control socket, ready to be sent. What would exceed a limit of
// toolkit/comm/comm_wire.hpp, or could not be read back as it was given, is refused and leaves the
// packet as it was.
//
//     comm_packet_builder cue;
//     bool good = cue.begin("vtt") && cue.add_uint64("service", 1) && cue.add_text("text",
//     "Hello");
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "toolkit/comm/comm_wire.hpp"

struct comm_packet_builder {
    // Starts a packet without pairs; the one built before is gone. False for a command that is too
    // long or contains a NUL; there is no packet then.
    [[nodiscard]] bool begin(std::string_view command, uint8_t status = comm_status_usable);

    // Each adds a pair behind those already there. False before begin(), for a name that is empty,
    // too long or contains a NUL, for a text that contains a NUL, and when the packet is full.
    [[nodiscard]] bool add_text(std::string_view name, std::string_view text);
    [[nodiscard]] bool add_uint64(std::string_view name, uint64_t value);
    [[nodiscard]] bool add_int64(std::string_view name, int64_t value);

    // The packet as it stands, whole at any moment; empty before begin(). Valid until the next
    // begin() or add.
    std::span<const uint8_t> packet() const { return wire; }

    std::vector<uint8_t> wire; // written by the methods above
};
