#include "tests/support/caption_data.hpp"

#include <bit>

uint8_t with_odd_parity(uint8_t byte)
{
    const int ones = std::popcount(static_cast<uint8_t>(byte & 0x7F));
    return static_cast<uint8_t>((byte & 0x7F) | (ones % 2 == 0 ? 0x80 : 0));
}

std::vector<caption_bytes> control_code(uint8_t first, uint8_t second, uint8_t field)
{
    const caption_bytes code{
        .type = field, .first = with_odd_parity(first), .second = with_odd_parity(second)};
    return {code, code};
}

std::vector<caption_bytes> letters(std::string_view text, uint8_t field)
{
    std::vector<caption_bytes> pairs;
    for (size_t i = 0; i < text.size(); i += 2) {
        const char second = i + 1 < text.size() ? text[i + 1] : '\0';
        pairs.push_back({.type = field,
                         .first = with_odd_parity(static_cast<uint8_t>(text[i])),
                         .second = with_odd_parity(static_cast<uint8_t>(second))});
    }
    return pairs;
}

byte_string build_a53_user_data(const std::vector<caption_bytes>& pairs)
{
    byte_string data = bytes_of("GA94");
    data.push_back(3);                                         // user_data_type_code: cc_data()
    data.push_back(static_cast<uint8_t>(0xC0 | pairs.size())); // process_cc_data_flag, cc_count
    data.push_back(0xFF);                                      // reserved
    for (const caption_bytes& pair : pairs) {
        data.push_back(static_cast<uint8_t>(0xF8 | (pair.valid ? 0x04 : 0) | pair.type));
        data.push_back(pair.first);
        data.push_back(pair.second);
    }
    data.push_back(0xFF); // marker_bits
    return data;
}

byte_string build_caption_sei(const std::vector<byte_string>& messages)
{
    byte_string rbsp;
    for (const byte_string& user_data : messages) {
        rbsp.push_back(4); // user_data_registered_itu_t_t35
        size_t size = 3 + user_data.size();
        for (; size >= 0xFF; size -= 0xFF)
            rbsp.push_back(0xFF);
        rbsp.push_back(static_cast<uint8_t>(size));
        append(rbsp, byte_string{0xB5, 0x00, 0x31}); // United States, ATSC
        append(rbsp, user_data);
    }
    rbsp.push_back(0x80); // rbsp_trailing_bits()

    byte_string unit = {0, 0, 0, 1, 6};
    int zeros = 0;
    for (const uint8_t byte : rbsp) {
        if (zeros == 2 && byte <= 3) {
            unit.push_back(3); // emulation_prevention_three_byte
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        unit.push_back(byte);
    }
    return unit;
}

byte_string build_mpeg_user_data(const byte_string& user_data)
{
    return concat({byte_string{0, 0, 1, 0xB2}, user_data});
}
