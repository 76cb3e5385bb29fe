#include "v2/es/video_frame.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/support/pes_builder.hpp"
#include "tests/support/ts_builder.hpp"

namespace
{

// The frame buffer is process-wide, so each test begins with an empty one.
class VideoFrame : public testing::Test
{
protected:
    void SetUp() override
    {
        video_frame_clear();
        ASSERT_TRUE(ensure_pes_scanner());
    }

    static void append_packet(byte_string packet)
    {
        mpeg_ts_packet pkt;
        ASSERT_NE(mpeg_ts_decode(pkt, packet.data(), packet.size()), 0);
        video_frame_append(pkt);
    }

    static void hold(const byte_string& bytes)
    {
        std::ranges::copy(bytes, video_frame);
        video_frame_sz = bytes.size();
    }
};

TEST_F(VideoFrame, HoldsThePayloadsInOrder)
{
    append_packet(build_ts_packet({.payload = counting_bytes(184)}));
    append_packet(build_ts_packet(
        {.adaptation = adaptation_fields{.stuffing = 150}, .payload = counting_bytes(32, 184)}));
    EXPECT_EQ(byte_string(video_frame, video_frame + video_frame_sz), counting_bytes(216));
}

TEST_F(VideoFrame, IgnoresPacketsWithoutPayload)
{
    append_packet(
        build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}, .has_payload = false}));
    append_packet(build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}}));
    EXPECT_EQ(video_frame_sz, 0u);
}

TEST_F(VideoFrame, DropsWhatExceedsItsSize)
{
    for (int i = 0; i < 44; i++) // 8096 bytes
        append_packet(build_ts_packet({.payload = counting_bytes(184)}));
    EXPECT_FALSE(video_frame_is_full());
    append_packet(build_ts_packet({.payload = counting_bytes(184)}));
    EXPECT_EQ(video_frame_sz, 8192u);
    EXPECT_TRUE(video_frame_is_full());
    EXPECT_EQ(video_frame[8191], 95);
    append_packet(build_ts_packet({.payload = counting_bytes(184)}));
    EXPECT_EQ(video_frame_sz, 8192u);
}

bool is_e0(uint32_t start_code)
{
    return start_code == 0x1E0;
}

TEST_F(VideoFrame, FindsTheFirstWantedPes)
{
    const byte_string audio =
        build_pes({.stream_id = 0xC0, .pts = 1, .payload = byte_string(9, 7)});
    const byte_string video =
        build_pes({.length = pes_length::true_length, .pts = 2, .payload = counting_bytes(20)});
    hold(concat({audio, video, byte_string(30, 0xFF)}));
    const pes_payload got = find_pes_payload(is_e0);
    ASSERT_NE(got.begin, nullptr);
    EXPECT_EQ(byte_string(got.begin, got.end), counting_bytes(20));
    EXPECT_EQ(got.pts, 2);
}

TEST_F(VideoFrame, AnUnboundedPesReachesToTheEndOfTheBytesHeld)
{
    hold(build_pes({.payload = counting_bytes(50)}));
    const pes_payload got = find_pes_payload(is_e0);
    EXPECT_EQ(byte_string(got.begin, got.end), counting_bytes(50));
    EXPECT_LT(got.pts, 0);
}

TEST_F(VideoFrame, APesThatIsLongerThanTheBytesHeldEndsWithThem)
{
    hold(build_pes({.packet_length = 5000, .pts = 3, .payload = counting_bytes(50)}));
    const pes_payload got = find_pes_payload(is_e0);
    EXPECT_EQ(byte_string(got.begin, got.end), counting_bytes(50));
}

TEST_F(VideoFrame, FindsNothingWhereNoPesIsWanted)
{
    const byte_string ranges[] = {
        {},
        byte_string(100, 0),
        build_pes({.stream_id = 0xC0, .pts = 1, .payload = counting_bytes(60)}),
        build_pes({.marker = 0, .pts = 1, .payload = counting_bytes(60)}),
        {0, 0, 1, 0xE0, 0, 0, 0x80},
    };
    for (const byte_string& range : ranges) {
        SCOPED_TRACE(range.size());
        hold(range);
        EXPECT_EQ(find_pes_payload(is_e0).begin, nullptr);
    }
}

} // namespace
