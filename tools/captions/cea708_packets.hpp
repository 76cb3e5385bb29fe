// The caption channel packets of CEA-708 (ANSI/CTA-708, 5 and 6), put together from the pairs that
// pictures carry, and the service blocks in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tools/captions/cc_data.hpp"

struct cea708_packets {
    // Takes a pair of a type of CEA-708. Of the packet that this completes, `on_block` is given the
    // number of each block's service, 1 to 63, and its data, valid during the call. `on_loss` is
    // called first where packets before this one are missing.
    template <typename OnLoss, typename OnBlock>
    void take(const cc_pair& pair, OnLoss&& on_loss, OnBlock&& on_block);

    // What comes next has lost its beginning.
    void drop() { *this = {}; }

    // Pairs are missing behind those taken.
    void lose();

    std::vector<uint8_t> packet; // as far as it has come; empty: none has begun
    int sequence_number = -1;    // of the packet before; -1: none
    bool has_gap = false;        // behind the packet before

    [[nodiscard]] bool add(const cc_pair& pair);
    [[nodiscard]] bool follows_the_last();
};

// Takes the next block off the front of a packet's data. False when there is none.
[[nodiscard]] bool take_service_block(std::span<const uint8_t>& data, int& service,
                                      std::span<const uint8_t>& block);

template <typename OnLoss, typename OnBlock>
void cea708_packets::take(const cc_pair& pair, OnLoss&& on_loss, OnBlock&& on_block)
{
    if (!add(pair))
        return;
    if (!follows_the_last())
        on_loss();
    std::span<const uint8_t> data = std::span<const uint8_t>(packet).subspan(1);
    std::span<const uint8_t> block;
    for (int service = 0; take_service_block(data, service, block);)
        on_block(service, block);
    packet.clear();
}
