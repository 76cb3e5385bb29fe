#include "toolkit/start_code.hpp"

#include <bit>
#include <cstddef>
#include <cstring>

namespace
{

// Sixteen bytes that the compiler works on at once. Vector types are an extension which GCC and
// Clang share.
using byte_block = uint8_t __attribute__((vector_size(16)));
using word_block = uint64_t __attribute__((vector_size(16)));

byte_block load_block(const uint8_t* p)
{
    byte_block block;
    std::memcpy(&block, p, sizeof(block));
    return block;
}

// 0xFF in each place from `p` on where two zero bytes begin, 0 in the others. Reads 17 bytes.
word_block zero_pairs(const uint8_t* p)
{
    return std::bit_cast<word_block>((load_block(p) | load_block(p + 1)) == 0);
}

} // namespace

// Coded data hardly ever holds two zero bytes in a row, so that nearly all of it is passed over a
// block at a time. (A single 0x01 or 0x03, which memchr would look for, is common in CAVLC.)
const uint8_t* find_zero_pair(const uint8_t* p, const uint8_t* end)
{
    constexpr std::ptrdiff_t step = 2 * sizeof(byte_block);
    for (; end - p > step; p += step) {
        const word_block pairs = zero_pairs(p) | zero_pairs(p + sizeof(byte_block));
        if ((pairs[0] | pairs[1]) == 0)
            continue;
        while (p[0] != 0 || p[1] != 0)
            p++;
        return p;
    }
    for (; end - p >= 2; p++)
        if (p[0] == 0 && p[1] == 0)
            return p;
    return end;
}

const uint8_t* find_start_code_prefix(const uint8_t* p, const uint8_t* end)
{
    while (end - (p = find_zero_pair(p, end)) >= 3) {
        if (p[2] == 1)
            return p;
        p++;
    }
    return end;
}
