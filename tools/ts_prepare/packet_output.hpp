// What goes out, in order, as pieces of memory that belong to others: packets in the input buffer,
// held packets, and packets made here, which it keeps itself. Nothing is copied that came in.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include <sys/uio.h>

struct packet_output {
    std::vector<iovec> pieces;             // neighbours in memory are one piece
    size_t bytes = 0;                      // of all pieces
    std::deque<std::vector<uint8_t>> made; // what add_made took
};

// The bytes have to stay until the output is cleared.
void add_packets(packet_output& output, std::span<uint8_t> packets);

// Takes packets that were made for this output.
void add_made_packets(packet_output& output, std::vector<uint8_t> packets);

void clear_output(packet_output& output);
