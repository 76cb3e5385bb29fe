#include "tools/captions/pes_pieces.hpp"

#include <gtest/gtest.h>

#include "tests/support/packetiser.hpp"
#include "tests/support/pes_builder.hpp"

namespace
{

constexpr uint16_t pid = 0x101;

// What the packets bring, as text: times in brackets where a PES packet begins, "." per payload
// byte, "!" where it has ended for sure, "x" where it was ended by what came behind.
std::string told(pes_pieces& pieces, byte_string packets)
{
    std::string text;
    for (size_t at = 0; at < packets.size(); at += ts_packet_bytes) {
        mpeg_ts_packet packet;
        EXPECT_NE(mpeg_ts_decode(packet, packets.data() + at, packets.size() - at), 0);
        const pes_piece piece = pieces.take(packet);
        if (piece.ends_before)
            text += "x";
        if (piece.begins)
            text += "[" + (piece.pts ? std::to_string(*piece.pts) : "") + "," +
                    (piece.dts ? std::to_string(*piece.dts) : "") + "]";
        text.append(piece.payload.size(), '.');
        if (piece.ends)
            text += "!";
    }
    return text;
}

pes_fields packet_of(size_t payload, pes_length length = pes_length::true_length)
{
    return {.length = length, .pts = 8589934591, .dts = 3003, .payload = byte_string(payload, 7)};
}

TEST(PesPieces, PacketWithALengthEndsWithItsLastByte)
{
    packetiser packets;
    pes_pieces pieces;
    EXPECT_EQ(told(pieces, packets.pes(pid, build_pes(packet_of(10)))),
              "[8589934591,3003]" + std::string(10, '.') + "!");
    EXPECT_EQ(told(pieces, packets.pes(pid, build_pes(packet_of(400)))),
              "[8589934591,3003]" + std::string(400, '.') + "!");
}

TEST(PesPieces, PacketWithoutALengthEndsWithTheNext)
{
    packetiser packets;
    pes_pieces pieces;
    const byte_string one = build_pes({.pts = 1, .payload = byte_string(5, 7)});
    EXPECT_EQ(told(pieces, packets.pes(pid, one)), "[1,].....");
    EXPECT_EQ(told(pieces, packets.pes(pid, one)), "x[1,].....");
}

TEST(PesPieces, HeaderMayBeSpreadOverPackets)
{
    packetiser packets;
    pes_pieces pieces;
    pes_fields fields = packet_of(20);
    fields.header_stuffing = 240; // behind both time stamps, the most that fits is 245
    EXPECT_EQ(told(pieces, packets.pes(pid, build_pes(fields))),
              "[8589934591,3003]" + std::string(20, '.') + "!");
}

TEST(PesPieces, LossEndsWhatWasBegun)
{
    packetiser packets;
    pes_pieces pieces;
    byte_string stream = packets.pes(pid, build_pes(packet_of(800)));
    stream.erase(stream.begin() + 2 * ts_packet_bytes, stream.begin() + 3 * ts_packet_bytes);
    const size_t first = ts_packet_bytes - 4 - 19;
    EXPECT_EQ(told(pieces, stream), "[8589934591,3003]" + std::string(first + 184, '.') + "x");
    EXPECT_EQ(told(pieces, packets.pes(pid, build_pes(packet_of(3)))), "[8589934591,3003]...!");
}

TEST(PesPieces, PacketSentTwiceCountsOnce)
{
    packetiser packets;
    pes_pieces pieces;
    byte_string stream = packets.pes(pid, build_pes(packet_of(300)));
    const byte_string second(stream.begin() + ts_packet_bytes, stream.end());
    append(stream, second);
    EXPECT_EQ(told(pieces, stream), "[8589934591,3003]" + std::string(300, '.') + "!");
}

TEST(PesPieces, HeadersThatAreNone)
{
    for (const pes_fields& fields :
         {pes_fields{.marker = 1, .pts = 1, .payload = byte_string(9, 7)},
          pes_fields{.packet_length = 2, .pts = 1, .payload = byte_string(9, 7)}}) {
        packetiser packets;
        pes_pieces pieces;
        EXPECT_EQ(told(pieces, packets.pes(pid, build_pes(fields))), "");
    }
    packetiser packets;
    pes_pieces pieces;
    // Flags that promise times for which the header has no room.
    EXPECT_EQ(told(pieces, packets.pes(pid, build_pes({.pts_dts_flags = uint8_t{3},
                                                       .payload = byte_string(3, 7)}))),
              "[,]...");
}

TEST(PesPieces, ScrambledAndBrokenPacketsAreNotRead)
{
    packetiser packets;
    byte_string stream = packets.pes(pid, build_pes(packet_of(10)));
    stream[3] |= 0x80; // transport_scrambling_control
    pes_pieces pieces;
    EXPECT_EQ(told(pieces, stream), "");
    stream = packets.pes(pid, build_pes(packet_of(10)));
    stream[1] |= 0x80; // transport_error_indicator
    EXPECT_EQ(told(pieces, stream), "");
}

} // namespace
