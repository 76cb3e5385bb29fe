// The characters of CEA-708 as Unicode (ANSI/CTA-708, 7.1).
#pragma once

#include <cstdint>

// Of the code sets G0 and G1: 0x20 to 0x7F and 0xA0 to 0xFF.
char32_t cea708_character(uint8_t code);

// Of the code sets G2 and G3, behind EXT1. Those that are not assigned are an underline, as the
// standard asks for.
char32_t cea708_extended_character(uint8_t code);
