#include "toolkit/ts/crc32.hpp"

#include <array>

#include "toolkit/big_endian.hpp"

namespace
{

constexpr uint32_t polynomial = 0x04C11DB7;

constexpr std::array<uint32_t, 256> make_table()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); byte++) {
        uint32_t crc = byte << 24;
        for (int bit = 0; bit < 8; bit++)
            crc = (crc & 0x80000000u) ? (crc << 1) ^ polynomial : crc << 1;
        table[byte] = crc;
    }
    return table;
}

constexpr std::array<uint32_t, 256> table = make_table();

} // namespace

uint32_t crc32_mpeg2(const uint8_t* begin, const uint8_t* end)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t* p = begin; p < end; p++)
        crc = (crc << 8) ^ table[(crc >> 24) ^ *p];
    return crc;
}

uint8_t* write_ts_checksum(uint8_t* out, const uint8_t* begin, const uint8_t* end)
{
    store_be32(out, crc32_mpeg2(begin, end));
    return out + crc32_bytes;
}
