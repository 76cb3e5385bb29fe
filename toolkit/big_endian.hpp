// Big-endian access to bytes of a stream. The caller has checked that the bytes are there.
#pragma once

#include <cstdint>

constexpr uint16_t load_be16(const uint8_t* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

constexpr uint32_t load_be32(const uint8_t* p)
{
    return (static_cast<uint32_t>(load_be16(p)) << 16) | load_be16(p + 2);
}

constexpr void store_be16(uint8_t* p, uint16_t value)
{
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

constexpr void store_be32(uint8_t* p, uint32_t value)
{
    store_be16(p, static_cast<uint16_t>(value >> 16));
    store_be16(p + 2, static_cast<uint16_t>(value));
}

constexpr uint64_t load_be64(const uint8_t* p)
{
    return (static_cast<uint64_t>(load_be32(p)) << 32) | load_be32(p + 4);
}

constexpr void store_be64(uint8_t* p, uint64_t value)
{
    store_be32(p, static_cast<uint32_t>(value >> 32));
    store_be32(p + 4, static_cast<uint32_t>(value));
}
