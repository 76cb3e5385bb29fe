#include "toolkit/ts/ts_packet.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/ts_builder.hpp"

namespace
{

// The bytes live as long as the case, since a decoded packet is a view of them.
struct decoded {
    explicit decoded(byte_string packet) : bytes(std::move(packet))
    {
        ok = mpeg_ts_decode(pkt, bytes.data(), bytes.size()) != 0;
        if (ok)
            mpeg_ts_decode_adaptation_field(pkt);
    }

    byte_string bytes;
    mpeg_ts_packet pkt;
    bool ok = false;
};

TEST(TsPacketDecode, ReadsEveryHeaderField)
{
    const decoded flags(build_ts_packet({.transport_error_indicator = true,
                                         .payload_unit_start = true,
                                         .transport_priority = true,
                                         .pid = 0x1ABC,
                                         .transport_scrambling_control = 2,
                                         .continuity_counter = 13}));
    ASSERT_TRUE(flags.ok);
    EXPECT_TRUE(flags.pkt.transport_error_indicator);
    EXPECT_TRUE(flags.pkt.payload_unit_start);
    EXPECT_TRUE(flags.pkt.transport_priority);
    EXPECT_EQ(flags.pkt.pid, 0x1ABC);
    EXPECT_EQ(flags.pkt.transport_scrambling_control, 2);
    EXPECT_EQ(flags.pkt.adaptation_field_control, 1);
    EXPECT_EQ(flags.pkt.continuity_counter, 13);
    EXPECT_EQ(flags.pkt.raw, flags.bytes.data());
}

TEST(TsPacketDecode, ReadsEachFlagBitAlone)
{
    const decoded none(build_ts_packet({.pid = 0}));
    ASSERT_TRUE(none.ok);
    EXPECT_FALSE(none.pkt.transport_error_indicator);
    EXPECT_FALSE(none.pkt.payload_unit_start);
    EXPECT_FALSE(none.pkt.transport_priority);
    EXPECT_EQ(none.pkt.pid, 0);

    const decoded start(build_ts_packet({.payload_unit_start = true, .pid = 0x1FFF}));
    ASSERT_TRUE(start.ok);
    EXPECT_FALSE(start.pkt.transport_error_indicator);
    EXPECT_TRUE(start.pkt.payload_unit_start);
    EXPECT_FALSE(start.pkt.transport_priority);
    EXPECT_EQ(start.pkt.pid, 0x1FFF);
}

struct payload_case {
    std::string_view name;
    ts_fields fields;
    size_t want_offset; // of the first payload byte in the packet
};

TEST(TsPacketDecode, LocatesThePayloadBehindTheAdaptationField)
{
    const payload_case cases[] = {
        {.name = "payload only", .fields = {}, .want_offset = 4},
        {.name = "field of length 0",
         .fields = {.adaptation = adaptation_fields{.empty = true}},
         .want_offset = 5},
        {.name = "field of flags only",
         .fields = {.adaptation = adaptation_fields{}},
         .want_offset = 6},
        {.name = "field with PCR and stuffing",
         .fields = {.adaptation = adaptation_fields{.pcr = pcr_fields{}, .stuffing = 10}},
         .want_offset = 4 + 1 + 1 + 6 + 10},
        {.name = "one payload byte",
         .fields = {.adaptation = adaptation_fields{.stuffing = 181}},
         .want_offset = 187},
        {.name = "a field that leaves no byte",
         .fields = {.adaptation = adaptation_fields{.stuffing = 182}},
         .want_offset = 188},
    };
    for (const payload_case& c : cases) {
        SCOPED_TRACE(c.name);
        const decoded got(build_ts_packet(c.fields));
        ASSERT_TRUE(got.ok);
        ASSERT_NE(got.pkt.payload, nullptr);
        EXPECT_EQ(static_cast<size_t>(got.pkt.payload - got.bytes.data()), c.want_offset);
        EXPECT_EQ(got.pkt.payload_end, got.bytes.data() + 188);
    }
}

TEST(TsPacketDecode, PacketWithoutPayloadHasNullPayload)
{
    const decoded got(
        build_ts_packet({.adaptation = adaptation_fields{.stuffing = 182}, .has_payload = false}));
    ASSERT_TRUE(got.ok);
    EXPECT_EQ(got.pkt.adaptation_field_control, 2);
    EXPECT_EQ(got.pkt.payload, nullptr);
}

struct refusal_case {
    std::string_view name;
    byte_string bytes;
};

// The record keeps whatever an earlier packet left in it.
TEST(TsPacketDecode, RefusesWhatCannotBeParsedAndLeavesTheRecordAsItWas)
{
    byte_string short_packet = build_ts_packet({});
    short_packet.pop_back();
    const refusal_case cases[] = {
        {.name = "187 bytes", .bytes = short_packet},
        {.name = "no sync byte", .bytes = build_ts_packet({.sync_byte = 0x46})},
        {.name = "reserved adaptation_field_control 00",
         .bytes = build_ts_packet({.adaptation_field_control = 0})},
        {.name = "field with payload, one byte past the packet",
         .bytes = build_ts_packet({.adaptation = adaptation_fields{.length = 184}})},
        {.name = "field without payload, one byte past the packet",
         .bytes = build_ts_packet(
             {.adaptation = adaptation_fields{.length = 184}, .has_payload = false})},
        {.name = "field of 255 bytes",
         .bytes = build_ts_packet({.adaptation = adaptation_fields{.length = 255}})},
    };
    for (const refusal_case& c : cases) {
        SCOPED_TRACE(c.name);
        byte_string first = build_ts_packet({.payload_unit_start = true, .pid = 0x123});
        mpeg_ts_packet pkt;
        ASSERT_NE(mpeg_ts_decode(pkt, first.data(), first.size()), 0);

        byte_string bytes = c.bytes;
        EXPECT_EQ(mpeg_ts_decode(pkt, bytes.data(), bytes.size()), 0);
        EXPECT_EQ(pkt.pid, 0x123);
        EXPECT_TRUE(pkt.payload_unit_start);
        EXPECT_EQ(pkt.raw, first.data());
        EXPECT_EQ(pkt.payload, first.data() + 4);
    }
}

TEST(TsPacketDecode, AcceptsAFieldThatEndsWithThePacket)
{
    const decoded got(build_ts_packet({.adaptation = adaptation_fields{.length = 183}}));
    EXPECT_TRUE(got.ok);
}

TEST(TsPacketDecode, AcceptsAPacketMarkedErroneous)
{
    const decoded got(build_ts_packet({.transport_error_indicator = true, .pid = 0x55}));
    ASSERT_TRUE(got.ok);
    EXPECT_EQ(got.pkt.pid, 0x55);
}

TEST(AdaptationField, IsAbsentWithoutItsControlBit)
{
    const decoded got(build_ts_packet({.payload = counting_bytes(184, 0xF0)}));
    ASSERT_TRUE(got.ok);
    EXPECT_EQ(got.pkt.adaptation_field, nullptr);
    EXPECT_EQ(got.pkt.pcr, -1);
    EXPECT_FALSE(got.pkt.discontinuity_indicator);
}

TEST(AdaptationField, OfLengthZeroHasNoFlags)
{
    // The payload's first byte would read as flags, were the length not honoured.
    const decoded got(build_ts_packet(
        {.adaptation = adaptation_fields{.empty = true}, .payload = {0xFF, 0xFF, 0xFF}}));
    ASSERT_TRUE(got.ok);
    EXPECT_EQ(got.pkt.adaptation_field, got.bytes.data() + 4);
    EXPECT_EQ(got.pkt.adaptation_field_length, 0);
    EXPECT_FALSE(got.pkt.discontinuity_indicator);
    EXPECT_FALSE(got.pkt.random_access_indicator);
    EXPECT_EQ(got.pkt.pcr, -1);
}

struct field_case {
    std::string_view name;
    adaptation_fields fields;
    bool want_discontinuity = false;
    bool want_random_access = false;
    int64_t want_pcr = -1;
};

TEST(AdaptationField, ReadsIndicatorsAndPcr)
{
    const uint64_t last_base = (uint64_t{1} << 33) - 1;
    const field_case cases[] = {
        {.name = "nothing set", .fields = {.stuffing = 20}},
        {.name = "discontinuity",
         .fields = {.discontinuity_indicator = true},
         .want_discontinuity = true},
        {.name = "random access",
         .fields = {.random_access_indicator = true},
         .want_random_access = true},
        {.name = "PCR 0", .fields = {.pcr = pcr_fields{}}, .want_pcr = 0},
        {.name = "PCR base and extension",
         .fields = {.pcr = pcr_fields{.base = 900001, .extension = 299}},
         .want_pcr = 900001 * 300 + 299},
        {.name = "the largest PCR",
         .fields = {.pcr = pcr_fields{.base = last_base, .extension = 299}},
         .want_pcr = static_cast<int64_t>(last_base) * 300 + 299},
        {.name = "all that a field can hold",
         .fields = {.discontinuity_indicator = true,
                    .random_access_indicator = true,
                    .elementary_stream_priority_indicator = true,
                    .pcr = pcr_fields{.base = 5},
                    .opcr = pcr_fields{.base = 7},
                    .splice_countdown = 3,
                    .transport_private_data = byte_string{1, 2, 3},
                    .extension = byte_string{0x1F},
                    .stuffing = 2},
         .want_discontinuity = true,
         .want_random_access = true,
         .want_pcr = 1500},
        {.name = "an OPCR is no PCR", .fields = {.opcr = pcr_fields{.base = 7}}},
    };
    for (const field_case& c : cases) {
        SCOPED_TRACE(c.name);
        const decoded got(build_ts_packet({.adaptation = c.fields}));
        ASSERT_TRUE(got.ok);
        EXPECT_EQ(got.pkt.discontinuity_indicator, c.want_discontinuity);
        EXPECT_EQ(got.pkt.random_access_indicator, c.want_random_access);
        EXPECT_EQ(got.pkt.pcr, c.want_pcr);
    }
}

TEST(AdaptationField, TooShortForItsPcrHasNone)
{
    for (const uint8_t length : {uint8_t{1}, uint8_t{2}, uint8_t{6}}) {
        SCOPED_TRACE(int{length});
        const decoded got(build_ts_packet({.adaptation = adaptation_fields{
                                               .random_access_indicator = true,
                                               .pcr = pcr_fields{.base = 90000},
                                               .length = length,
                                           }}));
        ASSERT_TRUE(got.ok);
        EXPECT_TRUE(got.pkt.random_access_indicator);
        EXPECT_EQ(got.pkt.pcr, -1);
    }
}

// The first video packet of a stream that another multiplexer wrote.
TEST(AdaptationField, OfAForeignStreamIsRead)
{
    byte_string packet = {
        0x47,                               // sync_byte
        0x41, 0x00,                         // payload_unit_start_indicator, PID 0x100
        0x30,                               // adaptation field and payload, counter 0
        0x07,                               // adaptation_field_length
        0x50,                               // random_access_indicator, PCR_flag
        0x00, 0x00, 0x7b, 0x0c, 0x7e, 0x00, // PCR 63000 * 300 + 0
        0x00, 0x00, 0x01, 0xe0,             // the PES packet's start
    };
    packet.resize(188, 0);
    const decoded got(packet);
    ASSERT_TRUE(got.ok);
    EXPECT_EQ(got.pkt.pid, 0x100);
    EXPECT_TRUE(got.pkt.payload_unit_start);
    EXPECT_TRUE(got.pkt.random_access_indicator);
    EXPECT_FALSE(got.pkt.discontinuity_indicator);
    EXPECT_EQ(got.pkt.pcr, 63000 * 300);
    EXPECT_EQ(got.pkt.payload, got.bytes.data() + 12);
}

struct header_case {
    std::string_view name;
    uint8_t flag_byte;
    uint16_t pid;
    uint8_t control_bits;
    uint8_t continuity_counter;
    std::array<uint8_t, 4> want;
};

TEST(TsHeaderWriter, WritesFourBytes)
{
    const header_case cases[] = {
        {.name = "a section's first packet",
         .flag_byte = 0x40,
         .pid = 0x1000,
         .control_bits = 0x10,
         .continuity_counter = 0,
         .want = {0x47, 0x50, 0x00, 0x10}},
        {.name = "a continuation",
         .flag_byte = 0,
         .pid = 0x0101,
         .control_bits = 0x10,
         .continuity_counter = 15,
         .want = {0x47, 0x01, 0x01, 0x1F}},
        {.name = "the counter's low four bits count",
         .flag_byte = 0x40,
         .pid = 0x1FFF,
         .control_bits = 0x10,
         .continuity_counter = 0x25,
         .want = {0x47, 0x5F, 0xFF, 0x15}},
    };
    for (const header_case& c : cases) {
        SCOPED_TRACE(c.name);
        std::array<uint8_t, 5> out{0, 0, 0, 0, 0xEE};
        EXPECT_EQ(
            write_ts_header(out.data(), c.flag_byte, c.pid, c.control_bits, c.continuity_counter),
            out.data() + 4);
        EXPECT_TRUE(std::equal(c.want.begin(), c.want.end(), out.begin()));
        EXPECT_EQ(out[4], 0xEE);
    }
}

} // namespace
