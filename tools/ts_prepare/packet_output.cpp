#include "tools/ts_prepare/packet_output.hpp"

#include <utility>

void add_packets(packet_output& output, std::span<uint8_t> packets)
{
    output.bytes += packets.size();
    if (!output.pieces.empty()) {
        iovec& last = output.pieces.back();
        if (static_cast<uint8_t*>(last.iov_base) + last.iov_len == packets.data()) {
            last.iov_len += packets.size();
            return;
        }
    }
    output.pieces.push_back({.iov_base = packets.data(), .iov_len = packets.size()});
}

void add_made_packets(packet_output& output, std::vector<uint8_t> packets)
{
    output.made.push_back(std::move(packets));
    add_packets(output, output.made.back());
}

void clear_output(packet_output& output)
{
    output.pieces.clear();
    output.bytes = 0;
    output.made.clear();
}
