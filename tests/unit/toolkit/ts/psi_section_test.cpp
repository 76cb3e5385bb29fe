#include "toolkit/ts/psi_section.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/support/psi_builder.hpp"

namespace
{

TEST(PsiHeader, IsReadFieldByField)
{
    const byte_string section = build_section({.table_id = 0x42,
                                               .section_syntax_indicator = true,
                                               .private_bit = true,
                                               .section_length = 0xABC,
                                               .table_id_extension = 0x1234,
                                               .version_number = 21,
                                               .current_next_indicator = true,
                                               .section_number = 3,
                                               .last_section_number = 9},
                                              {});
    const mpeg_ts_pat_main_header got = decode_ts_pat_main_header(section.data());
    EXPECT_EQ(got.table_id, 0x42);
    EXPECT_TRUE(got.section_syntax_indicator);
    EXPECT_TRUE(got.private_bit);
    EXPECT_EQ(got.section_length, 0xABC);
    EXPECT_EQ(got.table_id_extension, 0x1234);
    EXPECT_EQ(got.version_number, 21);
    EXPECT_TRUE(got.current_next_indicator);
    EXPECT_EQ(got.section_number, 3);
    EXPECT_EQ(got.last_section_number, 9);
}

TEST(PsiHeader, EachIndicatorIsReadAlone)
{
    const byte_string next = build_section(
        {.section_syntax_indicator = false, .private_bit = false, .current_next_indicator = false},
        {});
    const mpeg_ts_pat_main_header got = decode_ts_pat_main_header(next.data());
    EXPECT_FALSE(got.section_syntax_indicator);
    EXPECT_FALSE(got.private_bit);
    EXPECT_FALSE(got.current_next_indicator);

    const byte_string syntax = build_section({.section_syntax_indicator = true}, {});
    EXPECT_TRUE(decode_ts_pat_main_header(syntax.data()).section_syntax_indicator);
    EXPECT_FALSE(decode_ts_pat_main_header(syntax.data()).private_bit);
}

// A header that was read, written again and given the length of a new body is the same section's.
TEST(PsiHeaderWriter, WritesWhatWasRead)
{
    const section_fields cases[] = {
        {.table_id = 0, .table_id_extension = 0x0451, .version_number = 7},
        {.table_id = 2,
         .table_id_extension = 0xFFFF,
         .version_number = 31,
         .section_number = 1,
         .last_section_number = 2},
        {.table_id = 2, .private_bit = true, .current_next_indicator = false},
    };
    for (const section_fields& fields : cases) {
        const byte_string body = counting_bytes(17);
        const byte_string want = build_section(fields, body);
        mpeg_ts_pat_main_header header = decode_ts_pat_main_header(want.data());
        header.section_length = 0xFFF; // provisional

        byte_string got(want.size());
        uint8_t* const after = write_ts_pat_main_header(got.data(), header);
        ASSERT_EQ(after, got.data() + 8);
        EXPECT_EQ(header.written_at, got.data());
        std::copy(body.begin(), body.end(), after);
        rewrite_ts_pat_main_header_section_length(header, after + body.size());
        std::copy(want.end() - 4, want.end(), got.end() - 4); // CRC_32

        EXPECT_EQ(got, want);
        EXPECT_EQ(header.section_length, 5 + body.size() + 4);
    }
}

} // namespace
