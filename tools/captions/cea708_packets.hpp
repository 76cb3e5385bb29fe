// The caption channel packets of CEA-708 (ANSI/CTA-708, 5 and 6), put together from the pairs that
// pictures carry, and the service blocks in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tools/captions/cc_data.hpp"

struct cea708_packets {
    // Takes a pair of a type of CEA-708. `on_block` is given the service's number, 1 to 63, and its
    // data, valid during the call, of each block of the packet that this completes.
    template <typename OnBlock>
    void take(const cc_pair& pair, OnBlock&& on_block);

    // What comes next has lost its beginning.
    void drop() { packet.clear(); }

    std::vector<uint8_t> packet; // as far as it has come; empty: none has begun

    [[nodiscard]] bool add(const cc_pair& pair);
};

// Takes the next block off the front of a packet's data. False when there is none.
[[nodiscard]] bool take_service_block(std::span<const uint8_t>& data, int& service,
                                      std::span<const uint8_t>& block);

template <typename OnBlock>
void cea708_packets::take(const cc_pair& pair, OnBlock&& on_block)
{
    if (!add(pair))
        return;
    std::span<const uint8_t> data = std::span<const uint8_t>(packet).subspan(1);
    std::span<const uint8_t> block;
    for (int service = 0; take_service_block(data, service, block);)
        on_block(service, block);
    packet.clear();
}
