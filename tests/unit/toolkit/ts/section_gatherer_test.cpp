#include "toolkit/ts/section_gatherer.hpp"

#include <gtest/gtest.h>

#include "tests/support/packetiser.hpp"
#include "tests/support/psi_builder.hpp"
#include "toolkit/ts/section_packets.hpp"

namespace
{

byte_string section_of(size_t body_bytes, uint8_t version = 0)
{
    return build_section({.table_id = 2, .version_number = version}, byte_string(body_bytes, 0x5A));
}

// The sections that each packet completes.
std::vector<std::vector<byte_string>> gather(byte_string packets, ts_section_gatherer gatherer = {})
{
    std::vector<std::vector<byte_string>> result;
    for (size_t at = 0; at < packets.size(); at += packet_bytes) {
        mpeg_ts_packet pkt;
        EXPECT_NE(mpeg_ts_decode(pkt, packets.data() + at, packet_bytes), 0);
        ts_section_gatherer_take(gatherer, pkt);
        std::span<const uint8_t> rest = gatherer.complete;
        result.emplace_back();
        for (auto section = ts_next_section(rest); !section.empty();
             section = ts_next_section(rest))
            result.back().emplace_back(section.begin(), section.end());
    }
    return result;
}

TEST(SectionGatherer, GivesASectionWithItsLastByte)
{
    const byte_string small = section_of(20);
    const byte_string large = section_of(300);
    packetiser packets;
    EXPECT_EQ(gather(packets.section(0x20, section_unit(small))),
              (std::vector<std::vector<byte_string>>{{small}}));
    EXPECT_EQ(gather(packets.section(0x20, section_unit(large))),
              (std::vector<std::vector<byte_string>>{{}, {large}}));
}

TEST(SectionGatherer, GivesAllSectionsOfOnePacketAndOfThoseThatFollow)
{
    const byte_string one = section_of(20, 1);
    const byte_string two = section_of(200, 2);
    const byte_string three = section_of(5, 3);
    packetiser packets;
    EXPECT_EQ(gather(packets.section(0x20, concat({section_unit(one), two, three}))),
              (std::vector<std::vector<byte_string>>{{one}, {two, three}}));
}

TEST(SectionGatherer, EndsASectionBeforeThePointedToStartOfTheNext)
{
    const byte_string one = section_of(250, 1);
    const byte_string two = section_of(5, 2);
    packetiser packets;
    const byte_string unit = section_unit(one);
    const size_t in_first = packet_bytes - 4;
    byte_string bytes = packets.section(0x20, std::span(unit).first(in_first));
    append(bytes, packets.section(0x20, section_unit(two, {unit.begin() + in_first, unit.end()})));
    EXPECT_EQ(gather(bytes), (std::vector<std::vector<byte_string>>{{}, {one, two}}));
}

TEST(SectionGatherer, LeavesOutWhatIsDamaged)
{
    struct test_case {
        const char* name;
        byte_string unit;
    };
    byte_string flipped = section_of(20);
    flipped[10] ^= 1;
    const test_case cases[] = {
        {"a wrong CRC", section_unit(flipped)},
        {"the short form",
         section_unit(build_section({.section_syntax_indicator = false}, byte_string(20)))},
        {"too short for its header", section_unit(build_section({.section_length = 8}, {}))},
        {"a pointer past the packet", concat({bytes_of("\xB7"), section_of(20)})},
    };
    for (const test_case& c : cases) {
        SCOPED_TRACE(c.name);
        packetiser packets;
        EXPECT_EQ(gather(packets.section(0x20, c.unit)),
                  (std::vector<std::vector<byte_string>>{{}}));
    }
}

TEST(SectionGatherer, TakesTheShortFormWhereItIsToldTo)
{
    const ts_section_gatherer of_both{.section = {}, .takes_short_form = true, .complete = {}};
    const byte_string one = build_section({.section_syntax_indicator = false}, byte_string(20));
    const byte_string two = section_of(20);
    byte_string damaged = one;
    damaged[10] ^= 1;
    packetiser packets;
    EXPECT_EQ(gather(packets.section(0x20, concat({section_unit(one), damaged, two})), of_both),
              (std::vector<std::vector<byte_string>>{{one, two}}));
}

TEST(SectionGatherer, BeginsAtTheNextUnitAfterALoss)
{
    const byte_string large = section_of(300);
    packetiser packets;
    byte_string bytes = packets.section(0x20, section_unit(large));
    append(bytes, packets.section(0x20, section_unit(large)));
    bytes.erase(bytes.begin() + packet_bytes, bytes.begin() + 2 * packet_bytes);
    EXPECT_EQ(gather(bytes), (std::vector<std::vector<byte_string>>{{}, {}, {large}}));
}

TEST(SectionPackets, CarryASectionThatIsFoundAgain)
{
    for (const size_t body : {0U, 1U, 170U, 171U, 172U, 354U, 355U, 356U, 1000U}) {
        SCOPED_TRACE(body);
        const byte_string section = section_of(body);
        byte_string packets;
        uint8_t counter = 14;
        write_section_packets(packets, 0x1ABC, section, counter);
        packetiser reference;
        for (int i = 0; i < 14; i++) // up to that counter
            reference.packet({.pid = 0x1ABC});
        EXPECT_EQ(packets, reference.section(0x1ABC, section_unit(section)));
        EXPECT_EQ(counter, (14 + packets.size() / packet_bytes) % 16);
        EXPECT_EQ(gather(packets).back(), std::vector<byte_string>{section});
    }
}

} // namespace
