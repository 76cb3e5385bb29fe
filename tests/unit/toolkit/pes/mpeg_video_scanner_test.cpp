#include "toolkit/pes/mpeg_video_scanner.hpp"

#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/mpeg_video_builder.hpp"

namespace
{

// All start codes of a range, in order.
std::vector<uint32_t> codes_of(const byte_string& range)
{
    const mpeg_video_ptr scanner(mpeg_video_create());
    std::vector<uint32_t> codes;
    const uint8_t* p = range.data();
    const uint8_t* const end = p + range.size();
    for (;;) {
        const uint8_t* const next = mpeg_video_scan(scanner.get(), p, end);
        if (scanner->start_code == 0)
            return codes;
        EXPECT_GT(next, p);
        EXPECT_EQ(scanner->code_ptr, next - 4);
        codes.push_back(scanner->start_code);
        p = next;
    }
}

TEST(MpegVideoScanner, StartsWithNothingFound)
{
    const mpeg_video_ptr scanner(mpeg_video_create());
    ASSERT_NE(scanner, nullptr);
    EXPECT_EQ(scanner->start_code, 0u);
    EXPECT_EQ(scanner->code_ptr, nullptr);
}

TEST(MpegVideoScanner, FindsEveryStartCodeInOrder)
{
    const byte_string picture =
        concat({build_sequence_header({}), build_group_header({}), build_picture_header({}),
                build_slice(1, 20), build_slice(2, 20)});
    EXPECT_EQ(codes_of(picture), (std::vector<uint32_t>{0x1B3, 0x1B8, 0x100, 0x101, 0x102}));
}

TEST(MpegVideoScanner, FindsNothingInARangeWithoutStartCodes)
{
    for (const byte_string& range : {byte_string{}, byte_string{0, 0, 1}, byte_string(99, 0)}) {
        SCOPED_TRACE(range.size());
        const mpeg_video_ptr scanner(mpeg_video_create());
        const uint8_t* const end = range.data() + range.size();
        EXPECT_EQ(mpeg_video_scan(scanner.get(), range.data(), end), end);
        EXPECT_EQ(scanner->start_code, 0u);
        EXPECT_TRUE(scanner->at_end);
    }
}

TEST(MpegVideoScanner, IsAtTheEndWhenFewerThanFourBytesFollow)
{
    for (size_t behind = 0; behind < 6; behind++) {
        SCOPED_TRACE(behind);
        byte_string range = {0, 0, 1, 0xB3};
        range.resize(4 + behind, 0xFF);
        const mpeg_video_ptr scanner(mpeg_video_create());
        EXPECT_EQ(mpeg_video_scan(scanner.get(), range.data(), range.data() + range.size()),
                  range.data() + 4);
        EXPECT_EQ(scanner->start_code, 0x1B3u);
        EXPECT_EQ(scanner->at_end, behind < 4);
    }
}

bool decode(mpeg_video_picture_header& header, const byte_string& range)
{
    return mpeg_video_decode_picture_header(range.data(), range.data() + range.size(), &header) !=
           0;
}

struct picture_case {
    std::string_view name;
    picture_header_fields fields;
};

TEST(MpegPictureHeader, IsReadFieldByField)
{
    const picture_case cases[] = {
        {.name = "I", .fields = {.temporal_reference = 2}},
        {.name = "I, all ones", .fields = {.temporal_reference = 1023, .vbv_delay = 0x8001}},
        {.name = "P",
         .fields = {.temporal_reference = 513,
                    .picture_coding_type = p_picture,
                    .vbv_delay = 0x1234,
                    .full_pel_forward_vector = true,
                    .forward_f_code = 5}},
        {.name = "B",
         .fields = {.temporal_reference = 1,
                    .picture_coding_type = b_picture,
                    .vbv_delay = 0xFEDC,
                    .forward_f_code = 3,
                    .full_pel_backward_vector = true,
                    .backward_f_code = 6}},
        {.name = "D", .fields = {.picture_coding_type = d_picture, .vbv_delay = 1}},
    };
    for (const picture_case& c : cases) {
        SCOPED_TRACE(c.name);
        mpeg_video_picture_header got;
        ASSERT_TRUE(decode(got, build_picture_header(c.fields)));
        EXPECT_EQ(got.temporal_reference, c.fields.temporal_reference);
        EXPECT_EQ(got.picture_coding_type, c.fields.picture_coding_type);
        EXPECT_EQ(got.vbv_delay, c.fields.vbv_delay);
        const bool forward =
            c.fields.picture_coding_type == p_picture || c.fields.picture_coding_type == b_picture;
        if (forward) {
            EXPECT_EQ(got.full_pel_forward_vector, c.fields.full_pel_forward_vector);
            EXPECT_EQ(got.forward_f_code, c.fields.forward_f_code);
        }
        if (c.fields.picture_coding_type == b_picture) {
            EXPECT_EQ(got.full_pel_backward_vector, c.fields.full_pel_backward_vector);
            EXPECT_EQ(got.backward_f_code, c.fields.backward_f_code);
        }
    }
}

struct cut_case {
    std::string_view name;
    uint8_t picture_coding_type;
    size_t want_bytes; // of the shortest range that decodes
};

TEST(MpegPictureHeader, IsRefusedWhenTheRangeCutsItOff)
{
    const cut_case cases[] = {
        {.name = "I", .picture_coding_type = i_picture, .want_bytes = 8},
        {.name = "P", .picture_coding_type = p_picture, .want_bytes = 9},
        {.name = "B", .picture_coding_type = b_picture, .want_bytes = 9},
        {.name = "D", .picture_coding_type = d_picture, .want_bytes = 8},
    };
    for (const cut_case& c : cases) {
        const byte_string whole =
            build_picture_header({.picture_coding_type = c.picture_coding_type});
        for (size_t count = 0; count <= whole.size(); count++) {
            SCOPED_TRACE(std::string(c.name) + " in " + std::to_string(count) + " bytes");
            mpeg_video_picture_header got;
            EXPECT_EQ(decode(got, byte_string(whole.data(), whole.data() + count)),
                      count >= c.want_bytes);
        }
    }
}

// The first picture of a stream that an MPEG-2 encoder wrote.
TEST(MpegVideoScanner, ReadsAForeignStream)
{
    const byte_string stream = {
        0x00, 0x00, 0x01, 0xb3, 0x14, 0x00, 0xf0, 0x23, 0xff, 0xff, 0xe0, 0x18, // 320x240, 25 Hz
        0x00, 0x00, 0x01, 0xb5, 0x14, 0x8a, 0x00, 0x01, 0x00, 0x00,             // extension
        0x00, 0x00, 0x01, 0xb8, 0x00, 0x08, 0x00, 0x40,                         // closed GOP
        0x00, 0x00, 0x01, 0x00, 0x00, 0x0f, 0xff, 0xf8, 0x00,                   // I, 0
    };
    EXPECT_EQ(codes_of(stream), (std::vector<uint32_t>{0x1B3, 0x1B5, 0x1B8, 0x100}));

    mpeg_video_picture_header got;
    ASSERT_TRUE(decode(got, byte_string(stream.end() - 9, stream.end())));
    EXPECT_EQ(got.temporal_reference, 0u);
    EXPECT_EQ(got.picture_coding_type, i_picture);
    EXPECT_EQ(got.vbv_delay, 0xFFFFu);
}

} // namespace
