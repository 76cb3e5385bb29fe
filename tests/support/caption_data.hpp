// Closed captions bit by bit: the byte pairs of CEA-608, and the user data in which pictures carry
// them (ATSC A/53 Part 4, 6.2.3).
#pragma once

#include <string_view>
#include <vector>

#include "tests/support/bytes.hpp"

struct caption_bytes {
    uint8_t type = 0; // 0, 1: CEA-608, first and second field; 2, 3: CEA-708
    uint8_t first = 0;
    uint8_t second = 0;
    bool valid = true;
};

// The byte with its highest bit set so that the number of ones is odd.
uint8_t with_odd_parity(uint8_t byte);

// One control code of CEA-608, sent twice as is the custom.
std::vector<caption_bytes> control_code(uint8_t first, uint8_t second, uint8_t field = 0);

// ASCII letters that CEA-608 has too, two by two.
std::vector<caption_bytes> letters(std::string_view text, uint8_t field = 0);

// "GA94" and cc_data() with at most 31 pairs.
byte_string build_a53_user_data(const std::vector<caption_bytes>& pairs);

// A NAL unit with its start code, an SEI message of user data for each member of `messages`.
byte_string build_caption_sei(const std::vector<byte_string>& messages);

// User data of MPEG video with its start code.
byte_string build_mpeg_user_data(const byte_string& user_data);
