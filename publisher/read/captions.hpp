// Which captions pictures carry: cc_data() of ATSC A/53 Part 4, 6.2.3, in the user data of MPEG-2
// video or in an SEI message of H.264.
#pragma once

#include <cstdint>
#include <span>

#include "publisher/read/stream_facts.hpp"

// `user_data` begins with ATSC_identifier, "GA94". Anything else is passed over.
void find_captions(caption_facts& captions, std::span<const uint8_t> user_data);

// The RBSP of an SEI unit, ITU-T H.264, 7.3.2.3.
void find_captions_in_sei(caption_facts& captions, std::span<const uint8_t> rbsp);
