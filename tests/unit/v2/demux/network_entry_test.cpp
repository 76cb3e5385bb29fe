#include "v2/demux/network_entry.hpp"

#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/psi_builder.hpp"
#include "tests/support/ts_builder.hpp"

namespace
{

const pat_programme network{.number = 0, .pid = 0x10};
const pat_programme programme_1{.number = 1, .pid = 0x1000};
const pat_programme programme_2{.number = 2, .pid = 0x1FF0};

ts_fields pat_packet(const std::vector<pat_programme>& programmes)
{
    return {.payload_unit_start = true,
            .pid = 0,
            .payload = section_unit(build_pat({.programmes = programmes}))};
}

// The packet as the program would write it.
byte_string rewritten(const ts_fields& fields)
{
    byte_string bytes = build_ts_packet(fields);
    mpeg_ts_packet pkt;
    EXPECT_NE(mpeg_ts_decode(pkt, bytes.data(), bytes.size()), 0);
    if (move_nit_last(pkt))
        rewrite_pat_crc(pkt);
    return bytes;
}

struct network_case {
    std::string_view name;
    std::vector<pat_programme> programmes;
    std::vector<pat_programme> want;
};

TEST(NetworkEntry, IsMovedBehindTheProgrammes)
{
    const pat_programme not_reserved{.number = 0, .pid = 0x10, .reserved = 6};
    const network_case cases[] = {
        {"two programmes",
         {network, programme_1, programme_2},
         {programme_1, programme_2, network}},
        {"one programme", {network, programme_1}, {programme_1, network}},
        {"nothing else", {network}, {network}},
        {"not first", {programme_1, network, programme_2}, {programme_1, network, programme_2}},
        {"none", {programme_1}, {programme_1}},
        {"reserved bits not all ones", {not_reserved, programme_1}, {not_reserved, programme_1}},
    };
    for (const network_case& c : cases)
        EXPECT_EQ(rewritten(pat_packet(c.programmes)), build_ts_packet(pat_packet(c.want)))
            << c.name;
}

TEST(NetworkEntry, StaysInASectionThatIsNotWholeInItsPacket)
{
    const byte_string section = build_pat({.programmes = {network, programme_1}});
    const auto with_length = [](uint16_t length) {
        return section_unit(build_pat(
            {.section = {.section_length = length}, .programmes = {network, programme_1}}));
    };
    struct {
        std::string_view name;
        ts_fields packet;
    } const cases[] = {
        {"no unit start", {.pid = 0, .payload = section_unit(section)}},
        {"no payload",
         {.payload_unit_start = true,
          .pid = 0,
          .adaptation = adaptation_fields{.stuffing = 182},
          .has_payload = false}},
        // Behind the pointer_field there is room for 183 bytes, 3 of them before the length counts.
        {"a section that runs past the packet",
         {.payload_unit_start = true, .pid = 0, .payload = with_length(181)}},
        {"a pointer that moves it past the packet",
         {.payload_unit_start = true,
          .pid = 0,
          .payload = section_unit(section, counting_bytes(164))}},
        {"a pointer past the packet",
         {.payload_unit_start = true, .pid = 0, .payload = byte_string(184, 0xFF)}},
        {"a section without entries", pat_packet({})},
    };
    for (const auto& c : cases)
        EXPECT_EQ(rewritten(c.packet), build_ts_packet(c.packet)) << c.name;
}

TEST(NetworkEntry, MovesInASectionThatFillsItsPacket)
{
    std::vector<pat_programme> programmes(42, programme_1);
    programmes.back() = network;
    ts_fields want = pat_packet({}); // pointer_field, 3 bytes before the start, 180 of the section
    want.payload = section_unit(build_pat({.programmes = programmes}), {1, 2, 3});
    std::swap(programmes.front(), programmes.back());
    ts_fields packet = want;
    packet.payload = section_unit(build_pat({.programmes = programmes}), {1, 2, 3});
    EXPECT_EQ(rewritten(packet), build_ts_packet(want));
}

TEST(NetworkEntry, MovesInASectionThatFillsALittlePayload)
{
    ts_fields packet = pat_packet({network, programme_1}); // 1 + 20 bytes
    ts_fields want = pat_packet({programme_1, network});
    packet.adaptation = want.adaptation = adaptation_fields{.stuffing = 184 - 21 - 2};
    EXPECT_EQ(rewritten(packet), build_ts_packet(want));
}

} // namespace
