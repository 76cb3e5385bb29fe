#include "toolkit/comm/comm_socket_v4_packet.hpp"

#include <algorithm>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/control_socket_page.hpp"
#include "toolkit/comm/comm_packet_builder.hpp"
#include "toolkit/comm/comm_wire.hpp"

namespace
{

using bytes = std::vector<uint8_t>;

// Decodes a copy of exactly that size, so that a read past it is seen by the sanitizer.
comm_decode_result decode(std::span<const uint8_t> wire, comm_socket_v4_packet_ptr& packet)
{
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[wire.size()]);
    std::ranges::copy(wire, exact.get());
    size_t used = 0;
    const comm_decode_result result = comm_packet_decode({exact.get(), wire.size()}, packet, used);
    EXPECT_LE(used, wire.size());
    EXPECT_EQ(packet != nullptr, result == comm_decode_result::packet);
    return result;
}

comm_decode_result decode(std::span<const uint8_t> wire)
{
    comm_socket_v4_packet_ptr packet;
    return decode(wire, packet);
}

// As the page lists a packet. It calls every accessor, so it also serves to touch all that a
// hostile packet left behind.
std::string listing(std::span<const uint8_t> wire)
{
    comm_socket_v4_packet_ptr packet;
    switch (decode(wire, packet)) {
    case comm_decode_result::need_more:
        return "incomplete\n";
    case comm_decode_result::malformed:
        return "malformed\n";
    case comm_decode_result::packet:
        break;
    }

    std::ostringstream out;
    out << "status " << int{packet->status()} << " command \"" << packet->command() << "\"\n";
    for (unsigned long i = 0; i < packet->nv_entries(); ++i) {
        const auto* pair = packet->nv_entry(i);
        if (const char* name = comm_socket_v4_packet_get_nv_pair_name(packet.get(), pair))
            out << '"' << name << '"';
        else
            out << "no name";
        out << " type " << pair->type() << " length " << pair->length() << " \""
            << comm_socket_v4_packet_get_nv_pair_value_text(packet.get(), pair) << "\"\n";
    }
    return out.str();
}

bytes packet_with_everything()
{
    comm_packet_builder builder;
    EXPECT_TRUE(builder.begin("vtt"));
    EXPECT_TRUE(builder.add_uint64("service", 1));
    EXPECT_TRUE(builder.add_int64("start", -5));
    EXPECT_TRUE(builder.add_text("text", "one\ntwo"));
    EXPECT_TRUE(builder.add_text("identifier", ""));
    return builder.wire;
}

TEST(CommPacket, VectorsOfThePage)
{
    const std::vector<wire_vector> vectors =
        control_socket_page(SOURCE_DIR "/docs/control-socket.md").vectors();
    EXPECT_EQ(vectors.size(), 33U);
    for (const wire_vector& v : vectors) {
        SCOPED_TRACE(v.name);
        EXPECT_EQ(listing(v.bytes), v.want);
    }
}

TEST(CommPacket, WorkedExampleOfThePage)
{
    EXPECT_EQ(listing(control_socket_page(SOURCE_DIR "/docs/control-socket.md").worked_example()),
              "status 3 command \"vtt\"\n"
              "\"service\" type 2 length 8 \"1\"\n"
              "\"language\" type 0 length 3 \"eng\"\n"
              "\"start\" type 5 length 8 \"10000\"\n"
              "\"end\" type 5 length 8 \"12000\"\n"
              "\"now\" type 5 length 8 \"10000\"\n"
              "\"mpeg timestamp\" type 2 length 8 \"900000\"\n"
              "\"text\" type 0 length 5 \"Hello\"\n");
}

TEST(CommPacket, OneOfSeveralIsTakenOffTheFront)
{
    const bytes first = packet_with_everything();
    bytes both = first;
    both.insert(both.end(), {'g', 'a', 'r', 'b', 'a', 'g', 'e'});

    comm_socket_v4_packet_ptr packet;
    size_t used = 0;
    EXPECT_EQ(comm_packet_decode(both, packet, used), comm_decode_result::packet);
    EXPECT_EQ(used, first.size());
}

TEST(CommPacket, EveryTruncationIsIncomplete)
{
    const bytes whole = packet_with_everything();
    for (size_t n = 0; n < whole.size(); ++n) {
        SCOPED_TRACE(n);
        EXPECT_EQ(decode(std::span(whole).first(n)), comm_decode_result::need_more);
    }
    EXPECT_EQ(decode(whole), comm_decode_result::packet);
}

struct length_field {
    std::string_view name;
    size_t at, width;
};

// Of "vtt" with the pair "service": the header ends at 12, the command at 15.
constexpr size_t first_pair_at = comm_header_bytes + 3;
constexpr length_field length_fields[] = {
    {.name = "command_length", .at = comm_command_length_at, .width = 1},
    {.name = "pair_count", .at = comm_pair_count_at, .width = 1},
    {.name = "body_length", .at = comm_body_length_at, .width = 4},
    {.name = "name_length", .at = first_pair_at + comm_pair_name_length_at, .width = 1},
    {.name = "value_length", .at = first_pair_at + comm_pair_value_length_at, .width = 4},
};

TEST(CommPacket, NoCorruptedLengthGivesAPacket)
{
    const bytes whole = packet_with_everything();
    for (const length_field& field : length_fields) {
        for (size_t byte = field.at; byte < field.at + field.width; ++byte) {
            for (unsigned value = 0; value < 256; ++value) {
                if (value == whole[byte])
                    continue;
                SCOPED_TRACE(std::string(field.name) + " byte " + std::to_string(byte) + " = " +
                             std::to_string(value));
                bytes corrupted = whole;
                corrupted[byte] = static_cast<uint8_t>(value);
                EXPECT_NE(decode(corrupted), comm_decode_result::packet);
            }
        }
    }
}

TEST(CommPacket, EverySingleByteChangedIsSurvived)
{
    const bytes whole = packet_with_everything();
    for (size_t byte = 0; byte < whole.size(); ++byte) {
        for (const uint8_t mask : bytes{0x01, 0x80, 0xFF}) {
            bytes changed = whole;
            changed[byte] ^= mask;
            EXPECT_FALSE(listing(changed).empty());
        }
    }
}

TEST(CommPacket, RandomBodiesAreSurvived)
{
    std::mt19937 random(1); // fixed, so that a failure repeats
    std::uniform_int_distribution<unsigned> any_byte(0, 255);
    for (int round = 0; round < 2000; ++round) {
        bytes wire = packet_with_everything();
        wire[comm_pair_count_at] = static_cast<uint8_t>(any_byte(random) % (comm_pairs_max + 1));
        for (size_t i = comm_header_bytes; i < wire.size(); ++i)
            if (any_byte(random) < 64)
                wire[i] = static_cast<uint8_t>(any_byte(random) % 12);
        EXPECT_FALSE(listing(wire).empty());
    }
}

TEST(CommPacket, LargestPacket)
{
    bytes wire(comm_packet_bytes_max, 'x');
    bytes front = {
        'V', 'O', 'R',  'N',  // magic
        1,   3,               // version, status
        0,   1,               // command_length, pair_count
        0,   0,   0xFF, 0xF4, // body_length 65524
        0,   0,   0,    0,    // type, name_length, reserved
        0,   0,   0xFF, 0xEC, // value_length 65516
    };
    std::ranges::copy(front, wire.begin());
    comm_socket_v4_packet_ptr packet;
    ASSERT_EQ(decode(wire, packet), comm_decode_result::packet);
    EXPECT_EQ(packet->nv_entry(0)->length(), 65516U);
}

TEST(CommPacket, MostPairs)
{
    bytes wire = {'V', 'O', 'R', 'N', 1, 3, 0, 64, 0, 0, 2, 0};
    wire.resize(comm_header_bytes + 64 * comm_pair_header_bytes);
    comm_socket_v4_packet_ptr packet;
    ASSERT_EQ(decode(wire, packet), comm_decode_result::packet);
    EXPECT_EQ(packet->nv_entries(), 64U);
    EXPECT_NE(packet->nv_entry(63), nullptr);
    EXPECT_EQ(packet->nv_entry(64), nullptr);
    EXPECT_EQ(packet->nv_entry(~0UL), nullptr);
}

struct integer_case {
    std::string_view name;
    uint8_t type, length;
    bool unsigned_given, signed_given;
};

TEST(CommPacket, IntegersAreGivenForTheirTypeAndLength)
{
    constexpr integer_case cases[] = {
        {.name = "unsigned", .type = 2, .length = 8, .unsigned_given = true, .signed_given = false},
        {.name = "signed", .type = 5, .length = 8, .unsigned_given = false, .signed_given = true},
        {.name = "short", .type = 2, .length = 7, .unsigned_given = false, .signed_given = false},
        {.name = "short", .type = 5, .length = 7, .unsigned_given = false, .signed_given = false},
        {.name = "long", .type = 2, .length = 9, .unsigned_given = true, .signed_given = false},
        {.name = "long", .type = 5, .length = 9, .unsigned_given = false, .signed_given = true},
        {.name = "text", .type = 0, .length = 8, .unsigned_given = false, .signed_given = false},
    };
    for (const integer_case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " type " + std::to_string(c.type));
        const size_t body = comm_pair_header_bytes + c.length;
        bytes wire = {'V', 'O', 'R', 'N', 1, 3, 0, 1, 0, 0, 0, static_cast<uint8_t>(body)};
        const bytes pair = {c.type, 0, 0, 0, 0, 0, 0, c.length};
        wire.insert(wire.end(), pair.begin(), pair.end());
        wire.insert(wire.end(), c.length, uint8_t{0xFF});

        comm_socket_v4_packet_ptr packet;
        ASSERT_EQ(decode(wire, packet), comm_decode_result::packet);
        const auto* value = packet->nv_entry(0);
        const auto* u = comm_socket_v4_packet_get_nv_pair_value_uint64(packet.get(), value);
        const auto* s = comm_socket_v4_packet_get_nv_pair_value_int64(packet.get(), value);
        EXPECT_EQ(u != nullptr, c.unsigned_given);
        EXPECT_EQ(s != nullptr, c.signed_given);
        if (u != nullptr) {
            EXPECT_EQ(*u, UINT64_MAX);
        }
        if (s != nullptr) {
            EXPECT_EQ(*s, -1);
        }
    }
}

TEST(CommPacket, NoPair)
{
    EXPECT_EQ(comm_socket_v4_packet_get_nv_pair_name(nullptr, nullptr), nullptr);
    EXPECT_STREQ(comm_socket_v4_packet_get_nv_pair_value_text(nullptr, nullptr), "");
    EXPECT_EQ(comm_socket_v4_packet_get_nv_pair_value_int64(nullptr, nullptr), nullptr);
    EXPECT_EQ(comm_socket_v4_packet_get_nv_pair_value_uint64(nullptr, nullptr), nullptr);
    comm_socket_v4_packet_release(nullptr);
}

} // namespace
