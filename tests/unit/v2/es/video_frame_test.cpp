#include "v2/es/video_frame.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/packetiser.hpp"
#include "tests/support/pes_builder.hpp"

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

    static void append_packets(byte_string packets)
    {
        for (size_t at = 0; at < packets.size(); at += packet_bytes) {
            mpeg_ts_packet pkt;
            ASSERT_NE(mpeg_ts_decode(pkt, packets.data() + at, packet_bytes), 0);
            video_frame_append(pkt);
        }
    }

    // Holds these bytes, brought by transport packets, and nothing else.
    static void hold(const byte_string& bytes)
    {
        video_frame_clear();
        append_packets(packetiser{}.pes(0x101, bytes));
    }
};

bool is_e0(uint32_t start_code)
{
    return start_code == 0x1E0;
}

TEST_F(VideoFrame, HoldsThePayloadsInOrder)
{
    hold(build_pes({.payload = counting_bytes(500)}));
    const pes_payload got = find_pes_payload(is_e0);
    EXPECT_EQ(byte_string(got.begin, got.end), counting_bytes(500));
}

TEST_F(VideoFrame, IgnoresPacketsWithoutPayload)
{
    const byte_string packets =
        packetiser{}.pes(0x101, build_pes({.payload = counting_bytes(184 + 100 - 9)}));
    ASSERT_EQ(packets.size(), 2 * packet_bytes);
    append_packets({packets.data(), packets.data() + packet_bytes});
    append_packets(
        build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}, .has_payload = false}));
    append_packets(build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}}));
    append_packets({packets.data() + packet_bytes, packets.data() + 2 * packet_bytes});
    const pes_payload got = find_pes_payload(is_e0);
    EXPECT_EQ(byte_string(got.begin, got.end), counting_bytes(184 + 100 - 9));
}

struct size_case {
    std::string_view name;
    size_t pes_bytes; // with its header of 9 bytes
    size_t want_held;
    bool want_full;
};

TEST_F(VideoFrame, Holds8192BytesAndDropsTheRest)
{
    const size_case cases[] = {
        {.name = "one byte less", .pes_bytes = 8191, .want_held = 8191, .want_full = false},
        {.name = "as many", .pes_bytes = 8192, .want_held = 8192, .want_full = true},
        {.name = "one byte more", .pes_bytes = 8193, .want_held = 8192, .want_full = true},
        {.name = "many more", .pes_bytes = 20000, .want_held = 8192, .want_full = true},
    };
    for (const size_case& c : cases) {
        SCOPED_TRACE(c.name);
        hold(build_pes({.payload = counting_bytes(c.pes_bytes - 9)}));
        EXPECT_EQ(video_frame_is_full(), c.want_full);
        const pes_payload got = find_pes_payload(is_e0);
        EXPECT_EQ(byte_string(got.begin, got.end), counting_bytes(c.want_held - 9));
    }
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
