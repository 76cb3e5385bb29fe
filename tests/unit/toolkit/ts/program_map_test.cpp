#include "toolkit/ts/program_map.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/psi_builder.hpp"

namespace
{

// A PMT section without its 8-byte header and its CRC_32.
byte_string body_of(const pmt_fields& pmt)
{
    const byte_string section = build_pmt(pmt);
    return {section.begin() + 8, section.end() - 4};
}

bool decode(mpeg_ts_pat_map_header& map, const byte_string& body)
{
    return mpeg_ts_pat_map_header_decode(map, body.data(), body.data() + body.size()) != 0;
}

TEST(ProgramMap, ListsTheStreamsInOrder)
{
    const byte_string descriptor = build_descriptor(0x0A, bytes_of("fra\0"));
    const byte_string body =
        body_of({.pcr_pid = 0x1FFE,
                 .program_info = build_descriptor(0x05, bytes_of("HDMV")),
                 .streams = {
                     {.stream_type = 0x1B, .pid = 0x101},
                     {.stream_type = 0x0F, .pid = 0x1ABC, .descriptors = descriptor},
                     {.stream_type = 0x06, .pid = 0x30},
                 }});
    mpeg_ts_pat_map_header map;
    ASSERT_TRUE(decode(map, body));
    EXPECT_EQ(map.pcr_pid, 0x1FFE);
    EXPECT_EQ(map.program_info_length, 6);
    ASSERT_EQ(map.entry_count(), 3u);

    EXPECT_EQ(map.entries[0].stream_type, 0x1B);
    EXPECT_EQ(map.entries[0].pid, 0x101);
    EXPECT_EQ(map.entries[0].es_info_length, 0);
    EXPECT_EQ(map.entries[0].raw, body.data() + 4 + 6);
    EXPECT_EQ(map.entries[1].stream_type, 0x0F);
    EXPECT_EQ(map.entries[1].pid, 0x1ABC);
    EXPECT_EQ(map.entries[1].es_info_length, descriptor.size());
    EXPECT_EQ(map.entries[1].raw, body.data() + 4 + 6 + 5);
    EXPECT_EQ(map.entries[2].stream_type, 0x06);
    EXPECT_EQ(map.entries[2].pid, 0x30);
    EXPECT_EQ(map.entries[2].raw, body.data() + 4 + 6 + 5 + 5 + descriptor.size());
}

TEST(ProgramMap, WithoutStreamsIsDecodedAndEmpty)
{
    mpeg_ts_pat_map_header map;
    EXPECT_TRUE(decode(map, body_of({.program_info = counting_bytes(9)})));
    EXPECT_TRUE(map.entries.empty());
    EXPECT_EQ(map.program_info_length, 9);
}

TEST(ProgramMap, HoldsAsManyStreamsAsASectionCan)
{
    pmt_fields pmt;
    for (uint16_t i = 0; i < 200; i++)
        pmt.streams.push_back({.pid = static_cast<uint16_t>(0x100 + i)});
    mpeg_ts_pat_map_header map;
    ASSERT_TRUE(decode(map, body_of(pmt)));
    ASSERT_EQ(map.entry_count(), 200u);
    EXPECT_EQ(map.entries.back().pid, 0x100 + 199);
}

struct broken_case {
    std::string_view name;
    pmt_fields pmt;
};

TEST(ProgramMap, RefusesWhatRunsPastTheEnd)
{
    const pmt_stream video{};
    const broken_case cases[] = {
        {.name = "program_info one byte too long",
         .pmt = {.program_info = counting_bytes(4), .program_info_length = 5}},
        {.name = "program_info_length of all ones", .pmt = {.program_info_length = 0xFFF}},
        {.name = "last stream's descriptors one byte too long",
         .pmt = {.streams = {video, {.descriptors = counting_bytes(3), .es_info_length = 4}}}},
        {.name = "left-over byte", .pmt = {.streams = {video}, .left_over = {0x1B}}},
        {.name = "left-over four bytes",
         .pmt = {.streams = {video}, .left_over = {0x1B, 0xE1, 0x01, 0xF0}}},
        {.name = "left-over byte without any stream", .pmt = {.left_over = {0}}},
    };
    for (const broken_case& c : cases) {
        SCOPED_TRACE(c.name);
        mpeg_ts_pat_map_header map;
        EXPECT_FALSE(decode(map, body_of(c.pmt)));
    }
}

TEST(ProgramMap, RefusesABodyShorterThanItsFixedFields)
{
    const byte_string body = body_of({});
    ASSERT_EQ(body.size(), 4u);
    for (size_t count = 0; count < body.size(); count++) {
        SCOPED_TRACE(count);
        mpeg_ts_pat_map_header map;
        EXPECT_FALSE(decode(map, byte_string(body.data(), body.data() + count)));
    }
}

TEST(ProgramMap, ForgetsTheStreamsOfAnEarlierSection)
{
    mpeg_ts_pat_map_header map;
    ASSERT_TRUE(decode(map, body_of({.streams = {pmt_stream{}, pmt_stream{}}})));
    ASSERT_TRUE(decode(map, body_of({.streams = {{.pid = 0x77}}})));
    ASSERT_EQ(map.entry_count(), 1u);
    EXPECT_EQ(map.entries[0].pid, 0x77);
}

// From a stream that another multiplexer wrote: H.264 and AAC with a language.
TEST(ProgramMap, OfAForeignStreamIsRead)
{
    const byte_string body = {
        0xe1, 0x00,                         // PCR_PID 0x100
        0xf0, 0x00,                         // no program_info
        0x1b, 0xe1, 0x00, 0xf0, 0x00,       // H.264 on 0x100
        0x0f, 0xe1, 0x01, 0xf0, 0x06,       // AAC on 0x101, 6 bytes of descriptors
        0x0a, 0x04, 0x66, 0x72, 0x61, 0x00, // ISO_639_language_descriptor "fra"
    };
    mpeg_ts_pat_map_header map;
    ASSERT_TRUE(decode(map, body));
    EXPECT_EQ(map.pcr_pid, 0x100);
    ASSERT_EQ(map.entry_count(), 2u);
    EXPECT_EQ(map.entries[0].stream_type, 0x1B);
    EXPECT_EQ(map.entries[0].pid, 0x100);
    EXPECT_EQ(map.entries[1].stream_type, 0x0F);
    EXPECT_EQ(map.entries[1].pid, 0x101);
    EXPECT_EQ(map.entries[1].es_info_length, 6);
    EXPECT_EQ(map.entries[1].raw, body.data() + 9);
    EXPECT_TRUE(map.entries[1].raw_available);
}

} // namespace
