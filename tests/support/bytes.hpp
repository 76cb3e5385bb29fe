// Byte strings that the builders make and the tests compare.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

using byte_string = std::vector<uint8_t>;

inline void append(byte_string& out, std::span<const uint8_t> more)
{
    out.insert(out.end(), more.begin(), more.end());
}

// All parts, one behind the other.
inline byte_string concat(std::initializer_list<std::span<const uint8_t>> parts)
{
    byte_string out;
    for (const std::span<const uint8_t> part : parts)
        append(out, part);
    return out;
}

// The bytes of text, without a terminating NUL.
inline byte_string bytes_of(std::string_view text)
{
    return {text.begin(), text.end()};
}

// `count` bytes that count up from `first`, modulo 256: no two neighbours are alike, so a lost or
// doubled byte shows.
inline byte_string counting_bytes(size_t count, uint8_t first = 0)
{
    byte_string out(count);
    for (size_t i = 0; i < count; i++)
        out[i] = static_cast<uint8_t>(first + i);
    return out;
}
