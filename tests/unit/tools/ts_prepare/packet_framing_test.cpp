#include "tools/ts_prepare/packet_framing.hpp"

#include <gtest/gtest.h>

#include "tests/support/ts_builder.hpp"

namespace
{

// Packets with their number in the payload.
byte_string packet_number(size_t n)
{
    return build_ts_packet({.continuity_counter = static_cast<uint8_t>(n & 15),
                            .payload = counting_bytes(184, static_cast<uint8_t>(n))});
}

byte_string packets(size_t first, size_t count)
{
    byte_string out;
    for (size_t n = first; n < first + count; n++)
        append(out, packet_number(n));
    return out;
}

byte_string rtp_header(uint16_t sequence_number, size_t csrcs = 0, size_t extension_words = 0)
{
    byte_string out{static_cast<uint8_t>(0x80 | csrcs | (extension_words != 0 ? 0x10 : 0)), 33,
                    static_cast<uint8_t>(sequence_number >> 8),
                    static_cast<uint8_t>(sequence_number)};
    out.resize(12 + 4 * csrcs, 0x11);
    if (extension_words != 0) {
        append(out, byte_string{0xBE, 0xDE, 0, static_cast<uint8_t>(extension_words)});
        out.resize(out.size() + 4 * extension_words, 0x22);
    }
    return out;
}

struct framed {
    byte_string packets;
    size_t skipped = 0;
    size_t lost = 0;
    std::vector<uint16_t> datagrams;
    packet_format format = packet_format::unknown;
};

// Hands the bytes over in pieces of that size.
framed frame(byte_string bytes, size_t piece)
{
    framed result;
    packet_framing framing;
    size_t begin = 0;
    for (size_t end = 0; end < bytes.size();) {
        end = std::min(end + piece, bytes.size());
        for (;;) {
            const framing_step step =
                next_framing_step(framing, std::span(bytes).subspan(begin, end - begin),
                                  end == bytes.size() ? more_input::none : more_input::may_come);
            begin += step.consumed;
            if (step.event == framing_event::packet)
                append(result.packets, {step.at, packet_bytes});
            if (step.event == framing_event::skipped)
                result.skipped += step.consumed;
            if (step.event == framing_event::lost)
                result.lost++;
            if (step.event == framing_event::rtp_header)
                result.datagrams.push_back(step.rtp.sequence_number);
            if (step.event == framing_event::need_more)
                break;
        }
    }
    EXPECT_EQ(begin, bytes.size());
    result.format = framing.format;
    return result;
}

byte_string with_bytes_between(size_t before, size_t behind)
{
    byte_string out;
    for (size_t n = 0; n < 20; n++)
        for (const byte_string& part :
             {byte_string(before, 0x12), packet_number(n), byte_string(behind, 0x34)})
            append(out, part);
    return out;
}

byte_string in_datagrams(size_t csrcs, size_t extension_words)
{
    byte_string out;
    for (size_t n = 0; n < 21; n += 7) {
        append(out, rtp_header(static_cast<uint16_t>(n / 7), csrcs, extension_words));
        append(out, packets(n, 7));
    }
    return out;
}

TEST(PacketFraming, TakesPacketsOutOfEveryFormat)
{
    struct test_case {
        const char* name;
        byte_string bytes;
        packet_format format;
        size_t packets;
        size_t skipped;
    };
    const test_case cases[] = {
        {"188", with_bytes_between(0, 0), packet_format::plain, 20, 0},
        {"192, a time before each packet", with_bytes_between(4, 0), packet_format::bytes_192, 20,
         4},
        {"204, a code behind each packet", with_bytes_between(0, 16), packet_format::bytes_204, 20,
         0},
        {"RTP", in_datagrams(0, 0), packet_format::rtp, 21, 0},
        {"RTP with contributing sources", in_datagrams(3, 0), packet_format::rtp, 21, 0},
        {"RTP with an extension", in_datagrams(0, 5), packet_format::rtp, 21, 0},
        {"RTP with both", in_datagrams(15, 255), packet_format::rtp, 21, 0},
        {"a single packet", packets(0, 1), packet_format::plain, 1, 0},
    };
    for (const test_case& c : cases) {
        for (const size_t piece :
             {size_t{1}, size_t{7}, size_t{188}, size_t{1000}, c.bytes.size()}) {
            SCOPED_TRACE(c.name + (" in pieces of " + std::to_string(piece)));
            const framed got = frame(c.bytes, piece);
            EXPECT_EQ(got.packets, packets(0, c.packets));
            EXPECT_EQ(got.format, c.format);
            EXPECT_EQ(got.skipped, c.skipped);
            EXPECT_EQ(got.lost, 0U);
        }
    }
}

TEST(PacketFraming, TellsWhereDatagramsBegin)
{
    EXPECT_EQ(frame(in_datagrams(0, 0), 100).datagrams, (std::vector<uint16_t>{0, 1, 2}));
}

TEST(PacketFraming, FindsThePacketsAgainBehindWhatIsNone)
{
    struct test_case {
        const char* name;
        byte_string between;
    };
    const test_case cases[] = {
        {"a few bytes", bytes_of("garbage")},
        {"part of a packet", build_ts_packet({.pid = 9})},
        {"sync bytes that are none", byte_string(500, 0x47)},
        {"the look of an RTP header", {0x80, 33, 0, 1}},
    };
    for (test_case c : cases) {
        if (c.between.size() == packet_bytes)
            c.between.resize(100);
        for (const size_t piece : {1U, 188U, 100000U}) {
            SCOPED_TRACE(c.name + (" in pieces of " + std::to_string(piece)));
            const framed got = frame(concat({packets(0, 8), c.between, packets(8, 12)}), piece);
            EXPECT_GE(got.lost, 1U);
            ASSERT_GE(got.packets.size(), 18 * packet_bytes);
            const byte_string last = packets(10, 10);
            EXPECT_TRUE(std::equal(last.rbegin(), last.rend(), got.packets.rbegin()));
        }
    }
}

TEST(PacketFraming, SkipsExactlyTheBytesBetween)
{
    const framed got = frame(concat({packets(0, 8), bytes_of("garbage"), packets(8, 12)}), 1000);
    EXPECT_EQ(got.packets, packets(0, 20));
    EXPECT_EQ(got.skipped, 7U);
    EXPECT_EQ(got.lost, 1U);
}

TEST(PacketFraming, LosesOnePacketWithADamagedSyncByte)
{
    byte_string bytes = packets(0, 20);
    bytes[8 * packet_bytes] = 0;
    const framed got = frame(bytes, 1000);
    EXPECT_EQ(got.packets, concat({packets(0, 8), packets(9, 11)}));
    EXPECT_EQ(got.skipped, packet_bytes);
}

TEST(PacketFraming, FollowsAChangeOfFormat)
{
    const framed got = frame(concat({packets(0, 10), in_datagrams(0, 0)}), 1000);
    EXPECT_EQ(got.packets, concat({packets(0, 10), packets(0, 21)}));
    EXPECT_EQ(got.format, packet_format::rtp);
}

TEST(PacketFraming, PassesOverThePaddingOfDatagrams)
{
    for (const size_t padding : {size_t{1}, size_t{4}, size_t{71}, size_t{255}}) {
        SCOPED_TRACE(padding);
        byte_string bytes;
        for (size_t n = 0; n < 21; n += 7) {
            byte_string datagram = rtp_header(static_cast<uint16_t>(n / 7));
            datagram[0] |= 0x20;
            append(datagram, packets(n, 7));
            datagram.resize(datagram.size() + padding, 0x05); // 5 is no count here
            datagram.back() = static_cast<uint8_t>(padding);
            append(bytes, datagram);
        }
        for (const size_t piece : {bytes.size(), size_t{188}, size_t{7}, size_t{1}}) {
            const framed got = frame(bytes, piece);
            EXPECT_EQ(got.packets, packets(0, 21));
            EXPECT_EQ(got.datagrams, (std::vector<uint16_t>{0, 1, 2}));
            EXPECT_EQ(got.skipped, 0U);
            EXPECT_EQ(got.lost, 0U);
        }
    }
}

// The bit for padding, and something else behind the packets.
TEST(PacketFraming, FindsThePacketsAgainBehindPaddingThatIsNone)
{
    byte_string bytes;
    for (size_t n = 0; n < 21; n += 7) {
        byte_string datagram = rtp_header(static_cast<uint16_t>(n / 7));
        datagram[0] |= 0x20;
        append(datagram, packets(n, 7));
        datagram.resize(datagram.size() + 300, 0);
        append(bytes, datagram);
    }
    for (const size_t piece : {bytes.size(), size_t{188}, size_t{7}}) {
        const framed got = frame(bytes, piece);
        EXPECT_EQ(got.packets, packets(0, 21));
        EXPECT_EQ(got.skipped, 900U);
        EXPECT_EQ(got.lost, 3U);
    }
}

TEST(PacketFraming, PassesOverAHeaderOfUnreasonableLength)
{
    byte_string bytes = in_datagrams(0, 0);
    byte_string header = rtp_header(3, 0, 1);
    header[14] = 0xFF; // 65281 words
    append(bytes, header);
    append(bytes, in_datagrams(0, 0));
    const framed got = frame(bytes, 1000);
    EXPECT_EQ(got.packets, concat({packets(0, 21), packets(0, 21)}));
}

TEST(PacketFraming, FindsNothingInBytesWithoutPackets)
{
    const framed got = frame(counting_bytes(50000, 0), 1000);
    EXPECT_TRUE(got.packets.empty());
    EXPECT_EQ(got.skipped, 50000U);
}

} // namespace
