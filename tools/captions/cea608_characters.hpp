// The characters of CEA-608 as Unicode.
#pragma once

#include <cstdint>

// 0x20 to 0x7F.
char32_t cea608_basic_character(uint8_t code);

// The special characters: the second byte, 0x30 to 0x3F, behind 0x11.
char32_t cea608_special_character(uint8_t code);

// The extended characters of Western Europe: `set` 0 behind 0x12, 1 behind 0x13; 0x20 to 0x3F.
char32_t cea608_extended_character(int set, uint8_t code);
