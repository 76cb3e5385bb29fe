// Closed captions as pictures carry them: cc_data() of ANSI/CTA-708, 4.4, in the user data of ATSC
// A/53 Part 4, 6.2.3.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

enum class cc_type : uint8_t {
    field_1 = 0,     // two bytes of CEA-608 for the first field: CC1 and CC2
    field_2 = 1,     // CC3, CC4 and programme data
    dtvcc_data = 2,  // two bytes of a caption channel packet of CEA-708
    dtvcc_start = 3, // its first two
};

struct cc_pair {
    cc_type type = cc_type::field_1;
    uint8_t first = 0;
    uint8_t second = 0;

    bool operator==(const cc_pair&) const = default;
};

// A picture has one cc_data(), of 31 pairs at most. A packet that never ends may hold user data
// alone, all of which counts as one picture's: what is beyond this is left out.
constexpr size_t most_pairs_of_a_picture = size_t{16} * 31;

// Appends the valid pairs of what begins with the user_data_identifier "GA94". Other user data, and
// what is cut off, adds what it has: nothing, or the pairs that are whole.
void append_a53_pairs(std::span<const uint8_t> user_data, std::vector<cc_pair>& pairs);

// The same for each message of an SEI NAL unit of H.264, its header byte included: the captions are
// in user_data_registered_itu_t_t35 (ITU-T H.264, D.1.6), below the codes of the ATSC.
void append_sei_pairs(std::span<const uint8_t> nal_unit, std::vector<cc_pair>& pairs);
