#include "tools/caption_feed/cue_packet.hpp"

#include <sstream>

#include <gtest/gtest.h>

#include "toolkit/comm/comm_socket_v4_packet.hpp"

namespace
{

TEST(CuePacket, CarriesEverythingOfTheCue)
{
    const caption_cue cue = {.line = 4,
                             .identifier = "intro",
                             .start_ms = 1000,
                             .end_ms = 2500,
                             .stream_ticks = 990000,
                             .settings = "line:0",
                             .text = "one\ntwo"};
    comm_packet_builder built;
    ASSERT_TRUE(build_cue_packet(cue, 256, "eng", built));

    comm_socket_v4_packet_ptr packet;
    size_t used = 0;
    ASSERT_EQ(comm_packet_decode(built.packet(), packet, used), comm_decode_result::packet);
    std::ostringstream got;
    got << packet->command() << ' ' << int{packet->status()} << '\n';
    for (unsigned long i = 0; i < packet->nv_entries(); ++i) {
        const auto* pair = packet->nv_entry(i);
        got << comm_socket_v4_packet_get_nv_pair_name(packet.get(), pair) << ' ' << pair->type()
            << ' ' << comm_socket_v4_packet_get_nv_pair_value_text(packet.get(), pair) << '\n';
    }
    EXPECT_EQ(got.str(), "vtt 3\nservice 2 256\nlanguage 0 eng\nstart 5 1000\nend 5 2500\n"
                         "now 5 1000\nmpeg timestamp 2 990000\ntext 0 one\ntwo\n"
                         "identifier 0 intro\ncue settings 0 line:0\n");
}

TEST(CuePacket, ACueThatFitsNoPacket)
{
    caption_cue cue;
    cue.text.assign(65536, 'x');
    comm_packet_builder packet;
    EXPECT_FALSE(build_cue_packet(cue, 1, "eng", packet));
}

} // namespace
