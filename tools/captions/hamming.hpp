// The Hamming code of 4 bits in 8 that protects addresses and page numbers of teletext, ETSI EN 300
// 706, 8.2.
#pragma once

#include <bit>
#include <cstdint>

// Bits from the lowest: parity and data bit in turn, P1 D1 P2 D2 P3 D3 P4 D4.
constexpr uint8_t hamming_coded(uint8_t value)
{
    const int d1 = value & 1;
    const int d2 = value >> 1 & 1;
    const int d3 = value >> 2 & 1;
    const int d4 = value >> 3 & 1;
    const int p1 = 1 ^ d1 ^ d3 ^ d4;
    const int p2 = 1 ^ d1 ^ d2 ^ d4;
    const int p3 = 1 ^ d1 ^ d2 ^ d3;
    const int p4 = 1 ^ p1 ^ d1 ^ p2 ^ d2 ^ p3 ^ d3 ^ d4;
    return static_cast<uint8_t>(p1 | d1 << 1 | p2 << 2 | d2 << 3 | p3 << 4 | d3 << 5 | p4 << 6 |
                                d4 << 7);
}

// The value of a byte that has at most one wrong bit; -1 for one that has more.
constexpr int hamming_decoded(uint8_t byte)
{
    for (uint8_t value = 0; value < 16; ++value)
        if (std::popcount(static_cast<uint8_t>(hamming_coded(value) ^ byte)) <= 1)
            return value;
    return -1;
}
