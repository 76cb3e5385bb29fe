#include "tools/ts_prepare/packet_queue.hpp"

#include <algorithm>

uint8_t* push_packet(packet_queue& queue, const uint8_t* packet)
{
    if (queue.packets == queue.blocks.size() * packets_per_block)
        queue.blocks.push_back(std::make_unique<uint8_t[]>(packets_per_block * ts_packet_bytes));
    uint8_t* const kept = packet_at(queue, queue.packets++);
    std::copy_n(packet, ts_packet_bytes, kept);
    return kept;
}

size_t drop_blocks_before(packet_queue& queue, size_t place)
{
    const size_t blocks = place / packets_per_block;
    queue.blocks.erase(queue.blocks.begin(), queue.blocks.begin() + static_cast<ptrdiff_t>(blocks));
    queue.packets -= blocks * packets_per_block;
    return blocks * packets_per_block;
}

void clear_queue(packet_queue& queue)
{
    queue.blocks.clear();
    queue.packets = 0;
}
