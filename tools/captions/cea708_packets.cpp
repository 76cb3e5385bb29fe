#include "tools/captions/cea708_packets.hpp"

#include <utility>

namespace
{

// byte 0: sequence_number:2 packet_size_code:6
size_t packet_bytes(uint8_t header)
{
    const size_t packet_size_code = header & 0x3F;
    return packet_size_code == 0 ? 128 : packet_size_code * 2;
}

} // namespace

// True when the packet is whole. One that the next one's start cuts off is lost.
bool cea708_packets::add(const cc_pair& pair)
{
    if (pair.type == cc_type::dtvcc_start)
        packet.clear();
    else if (packet.empty())
        return false;
    packet.push_back(pair.first);
    packet.push_back(pair.second);
    return packet.size() >= packet_bytes(packet.front());
}

void cea708_packets::lose()
{
    packet.clear();
    has_gap = true;
}

// Some encoders do not count, so a number that stays as it is is no loss.
bool cea708_packets::follows_the_last()
{
    const int before = std::exchange(sequence_number, packet.front() >> 6);
    if (std::exchange(has_gap, false))
        return false;
    return before < 0 || sequence_number == before || sequence_number == ((before + 1) & 3);
}

//   byte 0     service_number:3 block_size:5
//   if service_number is 7 and block_size is not 0
//   byte 1     null_fill:2 extended_service_number:6
//   then block_size bytes
bool take_service_block(std::span<const uint8_t>& data, int& service,
                        std::span<const uint8_t>& block)
{
    constexpr int extended = 7;
    if (data.empty())
        return false;
    service = data[0] >> 5;
    const size_t block_size = data[0] & 0x1F;
    data = data.subspan(1);
    if (service == 0)
        return false; // nothing but filling comes behind
    if (service == extended && block_size != 0) {
        if (data.empty())
            return false;
        service = data[0] & 0x3F;
        data = data.subspan(1);
    }
    if (block_size > data.size())
        return false;
    block = data.first(block_size);
    data = data.subspan(block_size);
    return true;
}
