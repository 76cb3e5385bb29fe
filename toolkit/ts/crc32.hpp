// CRC_32 of PSI sections, ISO/IEC 13818-1, annex A (CRC-32/MPEG-2).
#pragma once

#include <cstdint>

constexpr uint16_t crc32_bytes = 4;

// Polynomial 0x04C11DB7, initial value 0xFFFFFFFF, no reflection, no final XOR. Over a section
// that includes its own CRC_32 the result is 0.
uint32_t crc32_mpeg2(const uint8_t* begin, const uint8_t* end);

// Stores the CRC of [begin, end) big-endian at `out`; returns the position 4 bytes past `out`.
uint8_t* write_ts_checksum(uint8_t* out, const uint8_t* begin, const uint8_t* end);
