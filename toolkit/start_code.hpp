// The start code prefix 0x000001 that PES packets, MPEG video and H.264 byte streams share, and the
// two zero bytes that it and the emulation prevention bytes of H.264 begin with.
#pragma once

#include <cstdint>

// Position of the next two zero bytes in a row that lie wholly in [p, end), or `end` when there are
// none.
const uint8_t* find_zero_pair(const uint8_t* p, const uint8_t* end);

// Position of the next 0x000001 that lies wholly in [p, end), or `end` when there is none.
const uint8_t* find_start_code_prefix(const uint8_t* p, const uint8_t* end);
