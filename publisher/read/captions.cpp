#include "publisher/read/captions.hpp"

#include <algorithm>
#include <array>

namespace
{

constexpr std::array<uint8_t, 4> atsc_identifier = {'G', 'A', '9', '4'};
constexpr uint8_t cc_data_type_code = 0x03; // user_data_type_code

// cc_type of CTA-708, 4.4
constexpr uint8_t cc_field_1 = 0;
constexpr uint8_t cc_field_2 = 1;
constexpr uint8_t dtvcc_packet_start = 3;

constexpr uint8_t sei_user_data_registered_itu_t_t35 = 4;

// Which of a field's two channels a pair belongs to is said by its control codes, 0x10 to 0x1F,
// CTA-608, 8.4; text goes on in the channel of the last one.
void find_608(caption_facts& captions, uint8_t field, uint8_t first)
{
    const uint8_t code = first & 0x7F; // without parity
    if (code < 0x10 || code > 0x1F)
        return;
    const int channel = field * 2 + ((code & 0x08) != 0 ? 1 : 0);
    captions.channels = static_cast<uint8_t>(captions.channels | (1u << channel));
}

// The header of the first service block follows that of the packet: service_number:3 block_size:5.
// Service 0 is a null block, and 7 announces an extended number.
void find_708(caption_facts& captions, uint8_t block_header)
{
    const uint8_t service = block_header >> 5;
    const uint8_t block_size = block_header & 0x1F;
    if (service >= 1 && service <= 6 && block_size > 0)
        captions.services |= uint64_t{1} << service;
}

} // namespace

// ATSC_user_data() with cc_data()
//   bytes 0-3  ATSC_identifier
//   byte 4     user_data_type_code
//   byte 5     process_em_data_flag:1 process_cc_data_flag:1 additional_data_flag:1 cc_count:5
//   byte 6     em_data
//   then cc_count times: marker_bits:5 cc_valid:1 cc_type:2, cc_data_1:8, cc_data_2:8
void find_captions(caption_facts& captions, std::span<const uint8_t> user_data)
{
    constexpr size_t header_bytes = 7;
    if (user_data.size() < header_bytes ||
        !std::equal(atsc_identifier.begin(), atsc_identifier.end(), user_data.begin()) ||
        user_data[4] != cc_data_type_code || (user_data[5] & 0x40) == 0)
        return;

    const size_t cc_count = user_data[5] & 0x1F;
    const size_t whole = std::min(cc_count, (user_data.size() - header_bytes) / 3);
    for (size_t i = 0; i < whole; i++) {
        const uint8_t* pair = user_data.data() + header_bytes + 3 * i;
        const uint8_t cc_type = pair[0] & 0x03;
        if ((pair[0] & 0x04) == 0) // cc_valid
            continue;
        if (cc_type == cc_field_1 || cc_type == cc_field_2)
            find_608(captions, cc_type, pair[1]);
        else if (cc_type == dtvcc_packet_start)
            find_708(captions, pair[2]);
    }
}

// sei_message(): payload type and size are each a run of 0xFF and one last byte.
void find_captions_in_sei(caption_facts& captions, std::span<const uint8_t> rbsp)
{
    const auto take_number = [&rbsp](size_t& number) {
        number = 0;
        while (!rbsp.empty()) {
            const uint8_t byte = rbsp.front();
            rbsp = rbsp.subspan(1);
            number += byte;
            if (byte != 0xFF)
                return true;
        }
        return false;
    };

    size_t type = 0;
    size_t size = 0;
    while (rbsp.size() > 2 && take_number(type) && take_number(size) && size <= rbsp.size()) {
        const auto message = rbsp.first(size);
        rbsp = rbsp.subspan(size);
        // itu_t_t35_country_code of the USA, itu_t_t35_provider_code of ATSC
        if (type == sei_user_data_registered_itu_t_t35 && size > 3 && message[0] == 0xB5 &&
            message[1] == 0x00 && message[2] == 0x31)
            find_captions(captions, message.subspan(3));
    }
}
