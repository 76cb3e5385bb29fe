// Packets of teletext bit by bit (ETSI EN 300 706), and the payload of the PES packets that carry
// them (ETSI EN 300 472). Bytes of packets are as EN 300 706 prints them, lowest bit first.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bytes.hpp"
#include "tests/support/caption_data.hpp"

inline constexpr size_t teletext_packet_size = 42; // from the address on

// EN 300 706, 8.2, table 2.
inline constexpr uint8_t teletext_coded[16] = {0x15, 0x02, 0x49, 0x5E, 0x64, 0x73, 0x38, 0x2F,
                                               0xD0, 0xC7, 0x8C, 0x9B, 0xA1, 0xB6, 0xFD, 0xEA};

inline byte_string teletext_address(int page, int number)
{
    return {teletext_coded[(page >> 8 & 7) | (number & 1) << 3], teletext_coded[number >> 1]};
}

struct teletext_header_fields {
    int page = 0x888;
    bool erases = true;
    bool in_series = false;
    int subcode = 0; // its lowest 4 bits
    bool inhibits = false;
};

inline byte_string teletext_header(const teletext_header_fields& fields)
{
    byte_string packet = teletext_address(fields.page, 0);
    append(packet,
           byte_string{teletext_coded[fields.page & 15], teletext_coded[fields.page >> 4 & 15],
                       teletext_coded[fields.subcode], teletext_coded[fields.erases ? 8 : 0],
                       teletext_coded[0],
                       teletext_coded[8], // a subtitle page
                       teletext_coded[fields.inhibits ? 8 : 0],
                       teletext_coded[fields.in_series ? 1 : 0]});
    packet.resize(teletext_packet_size, with_odd_parity(' '));
    return packet;
}

inline byte_string teletext_row(int page, int number, std::string_view text)
{
    byte_string packet = teletext_address(page, number);
    for (const char letter : std::string("\x0B\x0B") + std::string(text) + "\x0A\x0A") // a box
        packet.push_back(with_odd_parity(static_cast<uint8_t>(letter)));
    packet.resize(teletext_packet_size, with_odd_parity(' '));
    return packet;
}

inline uint8_t bits_reversed(uint8_t byte)
{
    uint8_t other = 0;
    for (int bit = 0; bit < 8; ++bit)
        other = static_cast<uint8_t>(other | ((byte >> bit & 1) << (7 - bit)));
    return other;
}

inline byte_string teletext_pes_payload(const std::vector<byte_string>& packets)
{
    byte_string payload = {0x10};
    for (const byte_string& packet : packets) {
        append(payload, byte_string{0x03, 0x2C, 0xE8, 0xE4});
        for (const uint8_t byte : packet)
            payload.push_back(bits_reversed(byte));
    }
    return payload;
}
