#include "toolkit/pes/pes_scanner.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/pes_builder.hpp"

namespace
{

// One scan from the range's start; positions as offsets, -1 for null.
struct scan_result {
    uint32_t start_code;
    std::ptrdiff_t payload;
    std::ptrdiff_t packet_start;
    std::ptrdiff_t packet_end;
    std::ptrdiff_t next;
    bool at_end;
    int64_t pts;
};

std::ptrdiff_t offset(const uint8_t* p, const uint8_t* begin)
{
    return p == nullptr ? -1 : p - begin;
}

scan_result scan(const byte_string& range, std::ptrdiff_t from = 0)
{
    const mpeg_pes_ptr scanner(mpeg_pes_create());
    const uint8_t* const begin = range.data();
    const uint8_t* const next = mpeg_pes_scan(scanner.get(), begin + from, begin + range.size());
    return {.start_code = scanner->start_code,
            .payload = offset(scanner->payload, begin),
            .packet_start = offset(scanner->packet_start, begin),
            .packet_end = offset(scanner->packet_end, begin),
            .next = offset(next, begin),
            .at_end = scanner->at_end,
            .pts = scanner->pts};
}

TEST(PesScanner, StartsWithNothingFound)
{
    const mpeg_pes_ptr scanner(mpeg_pes_create());
    ASSERT_NE(scanner, nullptr);
    EXPECT_EQ(scanner->start_code, 0u);
    EXPECT_EQ(scanner->payload, nullptr);
    EXPECT_LT(scanner->pts, 0);
}

TEST(PesScanner, ReadsAnUnboundedVideoHeader)
{
    const scan_result got = scan(build_pes({.pts = 900000, .payload = counting_bytes(40)}));
    EXPECT_EQ(got.start_code, 0x1E0u);
    EXPECT_EQ(got.packet_start, 0);
    EXPECT_EQ(got.payload, 14); // 6 + 3 + 5
    EXPECT_EQ(got.packet_end, -1);
    EXPECT_EQ(got.pts, 900000);
    EXPECT_EQ(got.next, 4);
    EXPECT_FALSE(got.at_end);
}

struct pts_case {
    std::string_view name;
    pes_fields fields;
    std::ptrdiff_t want_payload;
    int64_t want_pts;
};

TEST(PesScanner, ReadsThePtsThatTheHeaderCarries)
{
    const int64_t last = (int64_t{1} << 33) - 1;
    const pts_case cases[] = {
        {.name = "none", .fields = {}, .want_payload = 9, .want_pts = -1},
        {.name = "PTS 0", .fields = {.pts = 0}, .want_payload = 14, .want_pts = 0},
        {.name = "PTS 1", .fields = {.pts = 1}, .want_payload = 14, .want_pts = 1},
        {.name = "bit 15", .fields = {.pts = 0x8000}, .want_payload = 14, .want_pts = 0x8000},
        {.name = "bit 30",
         .fields = {.pts = 0x40000000},
         .want_payload = 14,
         .want_pts = 0x40000000},
        {.name = "bit 32",
         .fields = {.pts = int64_t{1} << 32},
         .want_payload = 14,
         .want_pts = int64_t{1} << 32},
        {.name = "the last before the wrap",
         .fields = {.pts = last},
         .want_payload = 14,
         .want_pts = last},
        {.name = "PTS and DTS",
         .fields = {.pts = 129600, .dts = 126000},
         .want_payload = 19,
         .want_pts = 129600},
        {.name = "header stuffing",
         .fields = {.pts = 5, .header_stuffing = 32},
         .want_payload = 46,
         .want_pts = 5},
        {.name = "stuffing without PTS",
         .fields = {.header_stuffing = 7},
         .want_payload = 16,
         .want_pts = -1},
        {.name = "the forbidden flags 01",
         .fields = {.pts = 5, .pts_dts_flags = 1},
         .want_payload = 14,
         .want_pts = -1},
        {.name = "flags 10 with 4 bytes of header data",
         .fields = {.pts_dts_flags = 2, .header_stuffing = 4},
         .want_payload = 13,
         .want_pts = -1},
        {.name = "flags 11 with only the PTS",
         .fields = {.pts = 77, .pts_dts_flags = 3},
         .want_payload = 14,
         .want_pts = 77},
    };
    for (const pts_case& c : cases) {
        SCOPED_TRACE(c.name);
        pes_fields fields = c.fields;
        fields.payload = counting_bytes(60);
        const scan_result got = scan(build_pes(fields));
        EXPECT_EQ(got.payload, c.want_payload);
        EXPECT_EQ(got.pts, c.want_pts);
    }
}

struct length_case {
    std::string_view name;
    uint16_t packet_length;
    std::ptrdiff_t want_payload;
    std::ptrdiff_t want_packet_end;
};

// The header with its PTS takes 8 bytes behind PES_packet_length.
TEST(PesScanner, TakesPacketLengthAsTheEndWhenItCoversTheHeader)
{
    const length_case cases[] = {
        {.name = "unbounded", .packet_length = 0, .want_payload = 14, .want_packet_end = -1},
        {.name = "1 byte", .packet_length = 1, .want_payload = -1, .want_packet_end = -1},
        {.name = "one byte short of the header",
         .packet_length = 7,
         .want_payload = -1,
         .want_packet_end = -1},
        {.name = "the header alone", .packet_length = 8, .want_payload = 14, .want_packet_end = 14},
        {.name = "one payload byte", .packet_length = 9, .want_payload = 14, .want_packet_end = 15},
        {.name = "past the range, which ends first",
         .packet_length = 0xFFFF,
         .want_payload = 14,
         .want_packet_end = 14 + 40},
    };
    for (const length_case& c : cases) {
        SCOPED_TRACE(c.name);
        const scan_result got = scan(
            build_pes({.packet_length = c.packet_length, .pts = 1, .payload = counting_bytes(40)}));
        EXPECT_EQ(got.payload, c.want_payload);
        EXPECT_EQ(got.packet_end, c.want_packet_end);
        EXPECT_EQ(got.packet_start, 0);
        EXPECT_EQ(got.start_code, 0x1E0u);
    }
}

TEST(PesScanner, HeaderWithoutItsMarkerBitsHasNoPayload)
{
    for (const uint8_t marker : {uint8_t{0}, uint8_t{1}, uint8_t{3}}) {
        SCOPED_TRACE(int{marker});
        const scan_result got =
            scan(build_pes({.marker = marker, .pts = 1, .payload = counting_bytes(40)}));
        EXPECT_EQ(got.start_code, 0x1E0u);
        EXPECT_EQ(got.payload, -1);
        EXPECT_LT(got.pts, 0);
    }
}

TEST(PesScanner, StreamsWithoutTheOptionalHeaderHaveTheirPayloadAtByteSix)
{
    for (const int id : {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF}) {
        SCOPED_TRACE(id);
        // The payload looks like an optional header with a PTS.
        const byte_string range = build_pes(
            {.stream_id = static_cast<uint8_t>(id), .pts = 9, .payload = counting_bytes(20)});
        const scan_result got = scan(range);
        EXPECT_EQ(got.start_code, 0x100u + static_cast<uint32_t>(id));
        EXPECT_EQ(got.payload, 6);
        EXPECT_LT(got.pts, 0);
    }
}

TEST(PesScanner, AllOtherStreamIdsHaveTheOptionalHeader)
{
    for (const int id : {0xBD, 0xC0, 0xDF, 0xE0, 0xEF, 0xF3, 0xF7, 0xF9, 0xFD, 0xFE}) {
        SCOPED_TRACE(id);
        const scan_result got = scan(build_pes(
            {.stream_id = static_cast<uint8_t>(id), .pts = 9, .payload = counting_bytes(20)}));
        EXPECT_EQ(got.start_code, 0x100u + static_cast<uint32_t>(id));
        EXPECT_EQ(got.payload, 14);
        EXPECT_EQ(got.pts, 9);
    }
}

TEST(PesScanner, VideoStartCodesAreNoPesHeaders)
{
    for (const int code : {0x00, 0x01, 0xAF, 0xB3, 0xB8, 0xBB}) {
        SCOPED_TRACE(code);
        const scan_result got = scan(build_pes(
            {.stream_id = static_cast<uint8_t>(code), .pts = 9, .payload = counting_bytes(20)}));
        EXPECT_EQ(got.start_code, 0x100u + static_cast<uint32_t>(code));
        EXPECT_EQ(got.payload, -1);
    }
}

TEST(PesScanner, HeaderCutOffByTheEndHasNoPayload)
{
    const byte_string whole = build_pes({.pts = 900000, .header_stuffing = 3});
    ASSERT_EQ(whole.size(), 17u);
    for (size_t count = 4; count < whole.size(); count++) {
        SCOPED_TRACE(count);
        const scan_result got = scan(byte_string(whole.data(), whole.data() + count));
        EXPECT_EQ(got.start_code, 0x1E0u);
        EXPECT_EQ(got.payload, -1);
        EXPECT_EQ(got.packet_start, 0);
        EXPECT_LT(got.pts, 0);
    }
    EXPECT_EQ(scan(whole).payload, 17);
}

TEST(PesScanner, FindsNothingWithoutAStartCode)
{
    const byte_string ranges[] = {
        {}, {0}, {0, 0}, {0, 0, 1}, {0, 0, 0, 0, 0}, {0, 0, 2, 0xE0, 0, 0}, byte_string(500, 0xFF)};
    for (const byte_string& range : ranges) {
        SCOPED_TRACE(range.size());
        const scan_result got = scan(range);
        EXPECT_EQ(got.start_code, 0u);
        EXPECT_EQ(got.payload, -1);
        EXPECT_EQ(got.next, offset(range.data() + range.size(), range.data()));
        EXPECT_TRUE(got.at_end);
    }
}

struct at_end_case {
    std::string_view name;
    size_t bytes_behind; // the start code's four bytes
    bool want;
};

TEST(PesScanner, IsAtTheEndWhenNoFurtherStartCodeFits)
{
    const at_end_case cases[] = {
        {.name = "nothing", .bytes_behind = 0, .want = true},
        {.name = "three bytes", .bytes_behind = 3, .want = true},
        {.name = "four bytes", .bytes_behind = 4, .want = false},
    };
    for (const at_end_case& c : cases) {
        SCOPED_TRACE(c.name);
        byte_string range = {0, 0, 1, 0xE0};
        range.resize(4 + c.bytes_behind, 0xFF);
        const scan_result got = scan(range);
        EXPECT_EQ(got.next, 4);
        EXPECT_EQ(got.at_end, c.want);
    }
}

TEST(PesScanner, FindsTheHeaderBehindOtherBytes)
{
    const byte_string before = {9, 0, 0, 2, 0, 0};
    const scan_result got =
        scan(concat({before, build_pes({.pts = 3, .payload = counting_bytes(9)})}));
    EXPECT_EQ(got.packet_start, 6);
    EXPECT_EQ(got.payload, 6 + 14);
    EXPECT_EQ(got.next, 6 + 4);
    EXPECT_EQ(got.pts, 3);
}

TEST(PesScanner, WalksFromHeaderToHeaderAndAlwaysAdvances)
{
    const byte_string first = build_pes({.pts = 1, .payload = byte_string(10, 0xAA)});
    const byte_string second = build_pes({.stream_id = 0xC0, .pts = 2, .payload = {0xBB}});
    const byte_string range = concat({first, second});
    const scan_result one = scan(range);
    EXPECT_EQ(one.start_code, 0x1E0u);
    EXPECT_EQ(one.next, 4);
    const scan_result two = scan(range, one.next);
    EXPECT_EQ(two.start_code, 0x1C0u);
    EXPECT_EQ(two.packet_start, static_cast<std::ptrdiff_t>(first.size()));
    EXPECT_EQ(two.pts, 2);
    const scan_result none = scan(range, two.next);
    EXPECT_EQ(none.start_code, 0u);
    EXPECT_EQ(none.next, static_cast<std::ptrdiff_t>(range.size()));
}

// Video and audio headers of streams that another multiplexer wrote.
TEST(PesScanner, ReadsForeignHeaders)
{
    const byte_string video = {
        0x00, 0x00, 0x01, 0xe0,       // stream id 0xE0
        0x00, 0x00,                   // unbounded
        0x80,                         // '10'
        0xc0,                         // PTS and DTS
        0x0a,                         // PES_header_data_length 10
        0x31, 0x00, 0x07, 0xf4, 0x81, // PTS 129600
        0x11, 0x00, 0x07, 0xd8, 0x61, // DTS 126000
        0x00, 0x00, 0x01, 0xb3,       // sequence_header_code
    };
    const scan_result got_video = scan(video);
    EXPECT_EQ(got_video.start_code, 0x1E0u);
    EXPECT_EQ(got_video.payload, 19);
    EXPECT_EQ(got_video.packet_end, -1);
    EXPECT_EQ(got_video.pts, 129600);

    const byte_string audio = {
        0x00, 0x00, 0x01, 0xc0,       // stream id 0xC0
        0x09, 0xd3,                   // PES_packet_length 2515
        0x80,                         // '10'
        0x80,                         // PTS
        0x05,                         // PES_header_data_length 5
        0x21, 0x00, 0x07, 0xec, 0xd5, // PTS 3 * 32768 + 0xecd5 / 2
        0xff, 0xfd, 0xe0, 0xc4,       // an MPEG audio frame header
    };
    const scan_result got_audio = scan(audio);
    EXPECT_EQ(got_audio.start_code, 0x1C0u);
    EXPECT_EQ(got_audio.payload, 14);
    EXPECT_EQ(got_audio.packet_end, 18); // the packet goes on past the range
    EXPECT_EQ(got_audio.pts, 3 * 32768 + 0xecd5 / 2);
}

} // namespace
