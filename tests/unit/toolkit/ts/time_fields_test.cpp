#include "toolkit/ts/time_fields.hpp"

#include <gtest/gtest.h>

#include "tests/support/packetiser.hpp"
#include "tests/support/pes_builder.hpp"

namespace
{

struct decoded {
    byte_string bytes;
    mpeg_ts_packet pkt;
    mpeg_ts_time_fields fields;
};

decoded decode(byte_string packet)
{
    decoded result{.bytes = std::move(packet), .pkt = {}, .fields = {}};
    EXPECT_NE(mpeg_ts_decode(result.pkt, result.bytes.data(), packet_bytes), 0);
    result.fields = mpeg_ts_find_time_fields(result.pkt);
    return result;
}

byte_string pes_packet(const pes_fields& fields,
                       const std::optional<adaptation_fields>& adaptation = std::nullopt)
{
    packetiser packets;
    byte_string bytes = packets.pes(0x100, build_pes(fields), adaptation);
    bytes.resize(packet_bytes);
    return bytes;
}

TEST(TimeFields, AreReadWhereTheyStand)
{
    const decoded got =
        decode(pes_packet({.pts = 0x1'2345'6789, .dts = 0x0'FEDC'BA98, .payload = bytes_of("x")},
                          adaptation_fields{.pcr = pcr_fields{0x1'FFFF'FFFE, 299}}));
    ASSERT_NE(got.fields.pcr, nullptr);
    ASSERT_NE(got.fields.pts, nullptr);
    ASSERT_NE(got.fields.dts, nullptr);
    EXPECT_EQ(load_pcr_base(got.fields.pcr), 0x1'FFFF'FFFE);
    EXPECT_EQ(load_time_stamp(got.fields.pts), 0x1'2345'6789);
    EXPECT_EQ(load_time_stamp(got.fields.dts), 0x0'FEDC'BA98);
}

TEST(TimeFields, AreWrittenWithoutTouchingTheirNeighbours)
{
    decoded got = decode(pes_packet({.pts = 1, .dts = 2, .payload = bytes_of("x")},
                                    adaptation_fields{.pcr = pcr_fields{3, 299}}));
    store_time_stamp(got.fields.pts, 0x1'2345'6789);
    store_time_stamp(got.fields.dts, 0x0'FEDC'BA98);
    store_pcr_base(got.fields.pcr, 0x1'FFFF'FFFF);
    EXPECT_EQ(got.bytes,
              pes_packet({.pts = 0x1'2345'6789, .dts = 0x0'FEDC'BA98, .payload = bytes_of("x")},
                         adaptation_fields{.pcr = pcr_fields{0x1'FFFF'FFFF, 299}}));
}

TEST(TimeFields, AreNotSeenWhereThereAreNone)
{
    struct test_case {
        const char* name;
        byte_string packet;
    };
    byte_string no_marker = pes_packet({.pts = 90000, .payload = bytes_of("x")});
    byte_string scrambled = no_marker;
    scrambled[3] |= 0x80;
    byte_string continued = no_marker;
    continued[1] &= 0xBF;
    no_marker[packet_bytes - 1 - 1] &= 0xFE; // of the stamp's last byte; the payload is one byte
    const test_case cases[] = {
        {"no stamps", pes_packet({.payload = bytes_of("x")})},
        {"a stream without the optional header",
         pes_packet({.stream_id = 0xBE, .optional_header = false, .payload = byte_string(20)})},
        {"forbidden flags", pes_packet({.pts = 1, .pts_dts_flags = 1, .payload = bytes_of("x")})},
        {"a header that is too short",
         pes_packet({.pts = 1, .header_data_length = 4, .payload = bytes_of("x")})},
        {"a wrong marker before the flags",
         pes_packet({.marker = 1, .pts = 1, .payload = bytes_of("x")})},
        {"a marker bit missing", no_marker},
        {"a scrambled packet", scrambled},
        {"no start of a unit", continued},
        {"a header that the packet cuts off",
         pes_packet({.pts = 1, .payload = byte_string(300)},
                    adaptation_fields{.stuffing = 184 - 2 - 13})},
    };
    for (const test_case& c : cases) {
        SCOPED_TRACE(c.name);
        const decoded got = decode(c.packet);
        EXPECT_EQ(got.fields.pcr, nullptr);
        EXPECT_EQ(got.fields.pts, nullptr);
        EXPECT_EQ(got.fields.dts, nullptr);
    }
}

} // namespace
