#include "toolkit/ts/crc32.hpp"

#include <algorithm>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/psi_builder.hpp"

namespace
{

uint32_t crc_of(const byte_string& bytes)
{
    return crc32_mpeg2(bytes.data(), bytes.data() + bytes.size());
}

struct check_case {
    std::string_view name;
    byte_string bytes;
    uint32_t want;
};

TEST(Crc32, MatchesKnownChecksums)
{
    const check_case cases[] = {
        {.name = "nothing", .bytes = {}, .want = 0xFFFFFFFF},
        // The check value that catalogues of CRCs list for CRC-32/MPEG-2.
        {.name = "the digits 1 to 9", .bytes = bytes_of("123456789"), .want = 0x0376E6E7},
    };
    for (const check_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(crc_of(c.bytes), c.want);
    }
}

TEST(Crc32, AgreesWithTheBitwiseDefinition)
{
    for (size_t count = 0; count < 300; count += 7) {
        SCOPED_TRACE(count);
        const byte_string bytes = counting_bytes(count, static_cast<uint8_t>(count));
        EXPECT_EQ(crc_of(bytes), bitwise_crc32(bytes));
    }
}

// Sections of streams that another multiplexer wrote.
const byte_string foreign_pat = {
    0x00,                   // table_id
    0xb0, 0x0d,             // section_length 13
    0x00, 0x01,             // transport_stream_id
    0xc1,                   // version 0, current
    0x00, 0x00,             // section 0 of 0
    0x00, 0x01, 0xf0, 0x00, // programme 1, PMT on 0x1000
    0x2a, 0xb1, 0x04, 0xb2, // CRC_32
};
const byte_string foreign_pmt = {
    0x02,                         // table_id
    0xb0, 0x17,                   // section_length 23
    0x00, 0x01,                   // program_number
    0xc1,                         // version 0, current
    0x00, 0x00,                   // section 0 of 0
    0xe1, 0x00,                   // PCR_PID 0x100
    0xf0, 0x00,                   // no program_info
    0x02, 0xe1, 0x00, 0xf0, 0x00, // MPEG-2 video on 0x100
    0x03, 0xe1, 0x01, 0xf0, 0x00, // MPEG audio on 0x101
    0xf6, 0x4a, 0x03, 0x55,       // CRC_32
};

TEST(Crc32, OfASectionWithItsChecksumIsZero)
{
    EXPECT_EQ(crc_of(foreign_pat), 0u);
    EXPECT_EQ(crc_of(foreign_pmt), 0u);
}

TEST(Crc32, OfASectionWithAnyBitFlippedIsNotZero)
{
    for (size_t bit = 0; bit < foreign_pmt.size() * 8; bit++) {
        SCOPED_TRACE(bit);
        byte_string broken = foreign_pmt;
        broken[bit / 8] = static_cast<uint8_t>(broken[bit / 8] ^ (0x80 >> (bit % 8)));
        EXPECT_NE(crc_of(broken), 0u);
    }
}

TEST(ChecksumWriter, ReproducesTheChecksumOfAForeignSection)
{
    for (const byte_string& section : {foreign_pat, foreign_pmt}) {
        byte_string written = section;
        uint8_t* const crc = written.data() + written.size() - 4;
        std::fill_n(crc, 4, uint8_t{0});
        EXPECT_EQ(write_ts_checksum(crc, written.data(), crc), crc + 4);
        EXPECT_EQ(written, section);
    }
}

} // namespace
