// Packets that wait: copies in blocks of memory that stay where they are until they are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "toolkit/ts/ts_packet.hpp"

constexpr size_t packets_per_block = 256;

struct packet_queue {
    std::vector<std::unique_ptr<uint8_t[]>> blocks;
    size_t packets = 0;
};

// Keeps a copy of the packet; returns it.
uint8_t* push_packet(packet_queue& queue, const uint8_t* packet);

inline uint8_t* packet_at(const packet_queue& queue, size_t index)
{
    return queue.blocks[index / packets_per_block].get() +
           index % packets_per_block * ts_packet_bytes;
}

// Forgets packets before this place, as many as fill blocks; returns how many, which is what the
// places of the others fall by.
size_t drop_blocks_before(packet_queue& queue, size_t place);

// Gives the memory back.
void clear_queue(packet_queue& queue);
