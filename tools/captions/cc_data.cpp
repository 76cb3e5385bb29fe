#include "tools/captions/cc_data.hpp"

#include <algorithm>
#include <array>

#include "tools/captions/rbsp.hpp"

namespace
{

constexpr std::array<uint8_t, 4> ga94 = {'G', 'A', '9', '4'};

bool starts_with(std::span<const uint8_t> bytes, std::span<const uint8_t> start)
{
    return bytes.size() >= start.size() && std::ranges::equal(bytes.first(start.size()), start);
}

// A number of 255s and the rest (7.3.2.3.1). False when the bytes end before it does.
[[nodiscard]] bool take_sei_number(std::span<const uint8_t>& bytes, size_t& number)
{
    number = 0;
    while (!bytes.empty()) {
        const uint8_t byte = bytes.front();
        bytes = bytes.subspan(1);
        number += byte;
        if (byte != 0xFF)
            return true;
    }
    return false;
}

} // namespace

//   bytes 0-3  user_data_identifier
//   byte 4     user_data_type_code
//   byte 5     reserved:1 process_cc_data_flag:1 zero_bit:1 cc_count:5
//   byte 6     reserved
//   then cc_count times
//   byte 0     one_bit:1 reserved:4 cc_valid:1 cc_type:2
//   bytes 1-2  cc_data_1, cc_data_2
void append_a53_pairs(std::span<const uint8_t> user_data, std::vector<cc_pair>& pairs)
{
    constexpr uint8_t cc_data_type_code = 3;
    constexpr size_t header_bytes = 7;
    constexpr size_t pair_bytes = 3;
    if (user_data.size() < header_bytes || !starts_with(user_data, ga94) ||
        user_data[4] != cc_data_type_code)
        return;
    const bool process_cc_data_flag = (user_data[5] & 0x40) != 0;
    if (!process_cc_data_flag)
        return;

    const size_t cc_count = user_data[5] & 0x1F;
    std::span<const uint8_t> rest = user_data.subspan(header_bytes);
    for (size_t i = 0; i < cc_count && rest.size() >= pair_bytes; ++i) {
        const bool cc_valid = (rest[0] & 0x04) != 0;
        if (cc_valid && pairs.size() < most_pairs_of_a_picture)
            pairs.push_back({.type = static_cast<cc_type>(rest[0] & 0x03),
                             .first = rest[1],
                             .second = rest[2]});
        rest = rest.subspan(pair_bytes);
    }
}

void append_sei_pairs(std::span<const uint8_t> nal_unit, std::vector<cc_pair>& pairs)
{
    constexpr size_t user_data_registered_itu_t_t35 = 4;
    // itu_t_t35_country_code of the United States, and the ATSC's provider code
    constexpr std::array<uint8_t, 3> atsc = {0xB5, 0x00, 0x31};
    if (nal_unit.empty())
        return;

    const std::vector<uint8_t> rbsp = rbsp_of(nal_unit);
    std::span<const uint8_t> rest = rbsp;
    while (rest.size() > 2) { // a message, and rbsp_trailing_bits()
        size_t type = 0;
        size_t size = 0;
        if (!take_sei_number(rest, type) || !take_sei_number(rest, size))
            return;
        const auto payload = rest.first(std::min(size, rest.size()));
        if (type == user_data_registered_itu_t_t35 && starts_with(payload, atsc))
            append_a53_pairs(payload.subspan(atsc.size()), pairs);
        rest = rest.subspan(payload.size());
    }
}
