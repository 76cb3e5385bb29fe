#include "toolkit/comm/comm_packet_builder.hpp"

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/control_socket_page.hpp"
#include "toolkit/comm/comm_socket_v4_packet.hpp"

namespace
{

using namespace std::string_literals;

comm_socket_v4_packet_ptr decoded(const comm_packet_builder& builder)
{
    comm_socket_v4_packet_ptr packet;
    size_t used = 0;
    EXPECT_EQ(comm_packet_decode(builder.packet(), packet, used), comm_decode_result::packet);
    EXPECT_EQ(used, builder.packet().size());
    return packet;
}

// The worked example, as a sender writes it.
comm_packet_builder hello()
{
    comm_packet_builder cue;
    EXPECT_TRUE(cue.begin("vtt"));
    EXPECT_TRUE(cue.add_uint64("service", 1));
    EXPECT_TRUE(cue.add_text("language", "eng"));
    EXPECT_TRUE(cue.add_int64("start", 10000));
    EXPECT_TRUE(cue.add_int64("end", 12000));
    EXPECT_TRUE(cue.add_int64("now", 10000));
    EXPECT_TRUE(cue.add_uint64("mpeg timestamp", 900000));
    EXPECT_TRUE(cue.add_text("text", "Hello"));
    return cue;
}

TEST(CommPacketBuilder, BuildsTheWorkedExampleOfThePage)
{
    EXPECT_EQ(hello().wire,
              control_socket_page(SOURCE_DIR "/docs/control-socket.md").worked_example());
}

TEST(CommPacketBuilder, SoDoesThePythonSenderOfThePage)
{
    if (std::system("python3 -c 'import sys' 2>/dev/null") != 0)
        GTEST_SKIP() << "no python3 here";

    const std::string script = testing::TempDir() + "sender." + std::to_string(getpid()) + ".py";
    std::ofstream(script) << control_socket_page(SOURCE_DIR "/docs/control-socket.md")
                                 .python_sender()
                                 .substr(0,
                                         control_socket_page(SOURCE_DIR "/docs/control-socket.md")
                                             .python_sender()
                                             .find("if __name__"))
                          << "sys.stdout.buffer.write(cue(1, 'eng', 10000, 12000, 'Hello'))\n";
    FILE* const output = popen(("python3 " + script).c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::vector<uint8_t> wire(1000);
    wire.resize(fread(wire.data(), 1, wire.size(), output));
    EXPECT_EQ(pclose(output), 0);
    EXPECT_EQ(unlink(script.c_str()), 0);
    EXPECT_EQ(wire, hello().wire);
}

TEST(CommPacketBuilder, ValuesComeBack)
{
    comm_packet_builder builder;
    ASSERT_TRUE(builder.begin("other", 2));
    ASSERT_TRUE(builder.add_text("a", "l\r\n\xFF"));
    ASSERT_TRUE(builder.add_text("b", ""));
    ASSERT_TRUE(builder.add_uint64("c", UINT64_MAX));
    ASSERT_TRUE(builder.add_int64("d", INT64_MIN));

    const auto packet = decoded(builder);
    EXPECT_EQ(packet->status(), 2);
    EXPECT_STREQ(packet->command(), "other");
    ASSERT_EQ(packet->nv_entries(), 4U);
    EXPECT_STREQ(comm_socket_v4_packet_get_nv_pair_name(packet.get(), packet->nv_entry(0)), "a");
    EXPECT_STREQ(comm_socket_v4_packet_get_nv_pair_value_text(packet.get(), packet->nv_entry(0)),
                 "l\r\n\xFF");
    EXPECT_STREQ(comm_socket_v4_packet_get_nv_pair_value_text(packet.get(), packet->nv_entry(1)),
                 "");
    EXPECT_EQ(*comm_socket_v4_packet_get_nv_pair_value_uint64(packet.get(), packet->nv_entry(2)),
              UINT64_MAX);
    EXPECT_EQ(*comm_socket_v4_packet_get_nv_pair_value_int64(packet.get(), packet->nv_entry(3)),
              INT64_MIN);
}

TEST(CommPacketBuilder, BeginStartsAnew)
{
    comm_packet_builder builder = hello();
    ASSERT_TRUE(builder.begin("", 0));
    EXPECT_EQ(builder.packet().size(), comm_header_bytes);
    EXPECT_EQ(decoded(builder)->nv_entries(), 0U);
}

TEST(CommPacketBuilder, NothingGoesIntoNoPacket)
{
    comm_packet_builder builder;
    EXPECT_FALSE(builder.add_text("a", "b"));
    EXPECT_TRUE(builder.packet().empty());
}

TEST(CommPacketBuilder, CommandLimits)
{
    comm_packet_builder builder;
    EXPECT_TRUE(builder.begin(std::string(255, 'c')));
    EXPECT_EQ(decoded(builder)->command(), std::string(255, 'c'));
    EXPECT_FALSE(builder.begin(std::string(256, 'c')));
    EXPECT_TRUE(builder.packet().empty());
    EXPECT_FALSE(builder.begin("v\0t"s));
}

TEST(CommPacketBuilder, RefusedPairsLeaveThePacketAsItWas)
{
    comm_packet_builder builder = hello();
    EXPECT_FALSE(builder.add_text("", "no name"));
    EXPECT_FALSE(builder.add_text("n\0"s, "NUL in the name"));
    EXPECT_FALSE(builder.add_text("text", "NUL in the text\0"s));
    EXPECT_FALSE(builder.add_uint64(std::string(256, 'n'), 1));
    EXPECT_FALSE(builder.add_text("n", std::string(comm_packet_bytes_max, 'x')));
    EXPECT_EQ(builder.wire, hello().wire);
    EXPECT_TRUE(builder.add_uint64(std::string(255, 'n'), 1));
    EXPECT_EQ(decoded(builder)->nv_entries(), 8U);
}

TEST(CommPacketBuilder, PairLimit)
{
    comm_packet_builder builder;
    ASSERT_TRUE(builder.begin("vtt"));
    for (size_t i = 0; i < comm_pairs_max; ++i)
        ASSERT_TRUE(builder.add_int64("n", 1));
    EXPECT_FALSE(builder.add_int64("n", 1));
    EXPECT_EQ(decoded(builder)->nv_entries(), comm_pairs_max);
}

TEST(CommPacketBuilder, SizeLimit)
{
    // 65536 less the header, the command "vtt", the pair's header and its name "t".
    constexpr size_t longest_text = 65536 - 12 - 3 - 8 - 1;
    comm_packet_builder builder;
    ASSERT_TRUE(builder.begin("vtt"));
    EXPECT_FALSE(builder.add_text("t", std::string(longest_text + 1, 'x')));
    EXPECT_TRUE(builder.add_text("t", std::string(longest_text, 'x')));
    EXPECT_EQ(decoded(builder)->nv_entry(0)->length(), longest_text);
    EXPECT_FALSE(builder.add_text("t", ""));
}

} // namespace
