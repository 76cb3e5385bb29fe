// Whether the packets of each PID follow one another, ISO/IEC 13818-1, 2.4.3.3.
#pragma once

#include <array>
#include <cstdint>

#include "toolkit/ts/ts_packet.hpp"

struct continuity_check {
    struct pid_state {
        bool known = false;
        bool repeated = false; // the last packet came twice, which it may
        uint8_t counter = 0;
    };
    std::array<pid_state, size_t{ts_pid_mask} + 1> pids{};
};

// False when packets of this PID are missing before this one, or one came too often.
[[nodiscard]] bool continues(continuity_check& check, const mpeg_ts_packet& pkt);
