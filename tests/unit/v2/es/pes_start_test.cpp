#include "v2/es/pes_start.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/packetiser.hpp"
#include "tests/support/pes_builder.hpp"

namespace
{

// Begins with the first of these transport packets and appends the others.
void gather(byte_string packets)
{
    for (size_t at = 0; at < packets.size(); at += packet_bytes) {
        mpeg_ts_packet pkt;
        ASSERT_NE(mpeg_ts_decode(pkt, packets.data() + at, packet_bytes), 0);
        if (at == 0) {
            ASSERT_TRUE(current_pes.begin(pkt));
        } else {
            video_frame_append(pkt);
        }
    }
}

// Holds these bytes, brought by transport packets, and nothing else.
void hold(const byte_string& bytes)
{
    gather(packetiser{}.pes(0x101, bytes));
}

std::optional<pes_payload> find_e0()
{
    return current_pes.find([](uint32_t start_code) { return start_code == 0x1E0; });
}

// Nothing, where no PES packet of 0xE0 is held.
std::optional<byte_string> held_payload()
{
    const auto found = find_e0();
    return found ? std::optional(byte_string(found->begin, found->end)) : std::nullopt;
}

TEST(PesStart, HoldsThePayloadsInOrder)
{
    hold(build_pes({.payload = counting_bytes(500)}));
    EXPECT_EQ(held_payload(), counting_bytes(500));
}

TEST(PesStart, IgnoresPacketsWithoutPayload)
{
    const byte_string packets =
        packetiser{}.pes(0x101, build_pes({.payload = counting_bytes(184 + 100 - 9)}));
    ASSERT_EQ(packets.size(), 2 * packet_bytes);
    gather(concat({
        {packets.data(), packets.data() + packet_bytes},
        build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}, .has_payload = false}),
        build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}}),
        {packets.data() + packet_bytes, packets.data() + 2 * packet_bytes},
    }));
    EXPECT_EQ(held_payload(), counting_bytes(184 + 100 - 9));
}

struct size_case {
    std::string_view name;
    size_t pes_bytes; // with its header of 9 bytes
    size_t want_held;
};

TEST(PesStart, Holds8192BytesAndDropsTheRest)
{
    const size_case cases[] = {
        {.name = "one byte less", .pes_bytes = 8191, .want_held = 8191},
        {.name = "as many", .pes_bytes = 8192, .want_held = 8192},
        {.name = "one byte more", .pes_bytes = 8193, .want_held = 8192},
        {.name = "many more", .pes_bytes = 20000, .want_held = 8192},
    };
    for (const size_case& c : cases) {
        SCOPED_TRACE(c.name);
        hold(build_pes({.payload = counting_bytes(c.pes_bytes - 9)}));
        EXPECT_EQ(video_frame_sz, c.want_held);
        EXPECT_EQ(held_payload(), counting_bytes(c.want_held - 9));
    }
}

TEST(PesStart, FindsTheFirstWantedPes)
{
    const byte_string audio =
        build_pes({.stream_id = 0xC0, .pts = 1, .payload = byte_string(9, 7)});
    const byte_string video =
        build_pes({.length = pes_length::true_length, .pts = 2, .payload = counting_bytes(20)});
    hold(concat({audio, video, byte_string(30, 0xFF)}));
    EXPECT_EQ(held_payload(), counting_bytes(20));
    EXPECT_EQ(find_e0()->pts, 2);
}

TEST(PesStart, AnUnboundedPesReachesToTheEndOfTheBytesHeld)
{
    hold(build_pes({.payload = counting_bytes(50)}));
    EXPECT_EQ(held_payload(), counting_bytes(50));
    EXPECT_LT(find_e0()->pts, 0);
}

TEST(PesStart, APesThatIsLongerThanTheBytesHeldEndsWithThem)
{
    hold(build_pes({.packet_length = 5000, .pts = 3, .payload = counting_bytes(50)}));
    EXPECT_EQ(held_payload(), counting_bytes(50));
}

TEST(PesStart, FindsNothingWhereNoPesIsWanted)
{
    gather(
        build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}, .has_payload = false}));
    EXPECT_FALSE(find_e0());

    const byte_string ranges[] = {
        byte_string(100, 0),
        build_pes({.stream_id = 0xC0, .pts = 1, .payload = counting_bytes(60)}),
        build_pes({.marker = 0, .pts = 1, .payload = counting_bytes(60)}),
        {0, 0, 1, 0xE0, 0, 0, 0x80},
    };
    for (const byte_string& range : ranges) {
        SCOPED_TRACE(range.size());
        hold(range);
        EXPECT_FALSE(find_e0());
    }
}

} // namespace
