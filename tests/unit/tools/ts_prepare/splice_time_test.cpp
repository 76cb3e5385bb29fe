#include "tools/ts_prepare/splice_time.hpp"

#include <gtest/gtest.h>

#include "tests/support/clocked_stream.hpp"
#include "tests/support/ts_builder.hpp"
#include "tests/unit/tools/ts_prepare/prepared.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/splice_stream.hpp"

namespace
{

constexpr uint16_t splice_pid = 0x1FC;

// splice_insert of ANSI/SCTE 35, 14, with a pts_adjustment of its own.
byte_string section_with(int64_t adjustment)
{
    byte_string section = {
        0xFC, 0x30, 0x2F, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xF0,
        0x14, 0x05, 0x48, 0x00, 0x00, 0x8F, 0x7F, 0xEF, 0xFE, 0x73, 0x69, 0xC0,
        0x2E, 0xFE, 0x00, 0x52, 0xCC, 0xF5, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0A,
        0x00, 0x08, 0x43, 0x55, 0x45, 0x49, 0x00, 0x00, 0x01, 0x35,
    };
    section[4] = static_cast<uint8_t>(adjustment >> 32);
    for (size_t i = 0; i < 4; i++)
        section[5 + i] = static_cast<uint8_t>(adjustment >> (24 - 8 * i));
    const uint32_t crc = bitwise_crc32(section);
    for (int shift = 24; shift >= 0; shift -= 8)
        section.push_back(static_cast<uint8_t>(crc >> shift));
    return section;
}

byte_string encrypted(byte_string section)
{
    section[4] |= 0x80;
    section.resize(section.size() - 4);
    const uint32_t crc = bitwise_crc32(section);
    for (int shift = 24; shift >= 0; shift -= 8)
        section.push_back(static_cast<uint8_t>(crc >> shift));
    return section;
}

byte_string packet_of(const byte_string& payload)
{
    return build_ts_packet({.payload_unit_start = true, .pid = splice_pid, .payload = payload});
}

// The packet once its splices are moved, and how many are not.
struct moved_packet {
    byte_string bytes;
    unsigned left = 0;
};

moved_packet moved(byte_string packet, int64_t ticks)
{
    mpeg_ts_packet pkt;
    EXPECT_NE(mpeg_ts_decode(pkt, packet.data(), packet.size()), 0);
    const unsigned left = move_splices(pkt, ticks);
    return {packet, left};
}

} // namespace

TEST(SpliceTime, IsMovedByTheAdjustmentOfItsSection)
{
    const struct {
        const char* name;
        int64_t before, ticks, after;
    } cases[] = {
        {"ahead", 0, 90000, 90000},
        {"back", 90000, -90000, 0},
        {"over the wrap", pts_modulus - 5, 10, 5},
        {"back over the wrap", 5, -10, pts_modulus - 5},
        {"of 33 bits", int64_t{1} << 32, 1, (int64_t{1} << 32) + 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const auto& sent :
             {section_with, +[](int64_t ticks) { // both have a CRC_32 that is right
                  return encrypted(section_with(ticks));
              }}) {
            const auto got = moved(packet_of(section_unit(sent(c.before))), c.ticks);
            EXPECT_EQ(got.left, 0U);
            EXPECT_EQ(got.bytes, packet_of(section_unit(sent(c.after))));
        }
    }
}

TEST(SpliceTime, IsMovedInEachSectionThatBeginsInThePacket)
{
    byte_string other = section_with(0); // a table of another kind between
    other[0] = 0xC0;
    const auto payload = [&](int64_t ticks) {
        return section_unit(concat({section_with(ticks), other, section_with(ticks)}),
                            counting_bytes(7));
    };
    const auto got = moved(packet_of(payload(0)), 77);
    EXPECT_EQ(got.left, 0U);
    EXPECT_EQ(got.bytes, packet_of(payload(77)));
}

TEST(SpliceTime, StaysWhereItCannotBeMoved)
{
    byte_string damaged = section_with(0);
    damaged[20] ^= 1;
    byte_string of_later_version = section_with(0);
    of_later_version[3] = 1;
    byte_string long_one = section_with(0);
    long_one[1] = 0x31; // 256 bytes more
    const struct {
        const char* name;
        byte_string payload;
        unsigned left;
    } cases[] = {
        {"damaged", section_unit(damaged), 1},
        {"of a later version", section_unit(of_later_version), 1},
        {"not in one packet", section_unit(long_one), 1},
        {"one byte of it", concat({byte_string{182}, byte_string(182), byte_string{0xFC}}), 1},
        {"pointer_field past the packet", {184, 0xFC}, 0},
        {"too short", section_unit({0xFC, 0x30, 0x04, 0, 0, 0, 0}), 1},
        {"no section", section_unit({}), 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const byte_string packet = packet_of(c.payload);
        const auto got = moved(packet, 90000);
        EXPECT_EQ(got.left, c.left);
        EXPECT_EQ(got.bytes, packet);
    }
}

// Behind a jump of the clock by 700 s.
TEST(SpliceTime, GoesOnWithTheClockOfTheStream)
{
    constexpr size_t frames = 50;
    constexpr int64_t begin = 1000 * pts_ticks_per_second;
    constexpr int64_t behind = begin + static_cast<int64_t>(frames) * ticks_per_frame;
    constexpr int64_t jump = 700 * pts_ticks_per_second;
    const byte_string splice = packet_of(section_unit(section_with(0)));
    byte_string damaged = splice;
    damaged[30] ^= 1;
    packetiser tables;
    const byte_string pmt = build_pmt({.pcr_pid = 0x100,
                                       .streams = {{.stream_type = 0x1B, .pid = 0x100},
                                                   {.stream_type = 0x86, .pid = splice_pid}}});
    clocked_stream stream({.audio_pid = 0});
    stream.raw(tables.section(0, section_unit(build_pat({}))))
        .raw(tables.section(0x1000, section_unit(pmt)))
        .raw(tables.section(0, section_unit(build_pat({}))))
        .raw(tables.section(0x1000, section_unit(pmt)))
        .frames(begin, frames)
        .raw(splice)
        .frames(behind + jump, frames)
        .raw(splice)
        .raw(damaged);
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_EQ(got.preparer.counters.clock_jumps, 1U);
    EXPECT_EQ(packets_of_pid(got.out, splice_pid),
              concat({splice, packet_of(section_unit(section_with(pts_modulus - jump))), damaged}));
    EXPECT_EQ(got.preparer.counters.unmoved_splices, 1U);
    ASSERT_FALSE(got.preparer.notices.lines.empty());
    EXPECT_EQ(got.preparer.notices.lines.back(),
              "vorn_ts_prepare: a splice keeps its time though the clock was moved: its section on "
              "PID 01fch is damaged or not in one packet");
}

TEST(SpliceStream, IsToldByItsTypeOrItsRegistration)
{
    const byte_string cuei = build_descriptor(0x05, bytes_of("CUEI"));
    const byte_string other = build_descriptor(0x05, bytes_of("HDMV"));
    EXPECT_TRUE(carries_splices(0x86, {}));
    EXPECT_TRUE(carries_splices(0x86, cuei));
    EXPECT_FALSE(carries_splices(0x86, other)) << "sound of another system";
    EXPECT_TRUE(carries_splices(0x06, concat({build_descriptor(0x0A, {1, 2, 3, 4}), cuei})));
    EXPECT_FALSE(carries_splices(0x06, {}));
    EXPECT_FALSE(carries_splices(0x06, std::span(cuei).first(5))) << "cut off";
}
