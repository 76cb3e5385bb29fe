#include "toolkit/ts/table_assembly.hpp"

#include <optional>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/packetiser.hpp"
#include "tests/support/psi_builder.hpp"

namespace
{

constexpr size_t capacity = 4096;

// Feeds the packets of one PID in the calling order that the demultiplexer uses and collects the
// data of the sections delivered.
class section_reader
{
public:
    section_reader() { mpeg_ts_table_assembly_init(assembly_, capacity); }

    // Delivered while the packets of `stream` were fed.
    std::vector<byte_string> feed(byte_string stream)
    {
        std::vector<byte_string> delivered;
        for (size_t at = 0; at < stream.size(); at += packet_bytes) {
            mpeg_ts_packet pkt;
            EXPECT_NE(mpeg_ts_decode(pkt, stream.data() + at, packet_bytes), 0);
            if (pkt.payload_unit_start) {
                mpeg_ts_table_assembly_complete(assembly_);
                if (const auto data = take())
                    delivered.push_back(*data);
                mpeg_ts_table_assembly_discard(assembly_);
                mpeg_ts_table_assembly_begin(assembly_, nullptr, pkt);
            } else {
                mpeg_ts_table_assembly_add(assembly_, pkt);
                if (const auto data = take()) {
                    delivered.push_back(*data);
                    mpeg_ts_table_assembly_discard(assembly_);
                }
            }
        }
        return delivered;
    }

    std::optional<byte_string> take()
    {
        const mpeg_ts_pat_main_header* header = nullptr;
        const uint8_t* data = nullptr;
        const uint8_t* end = nullptr;
        if (mpeg_ts_table_assembly_take_ready(assembly_, header, data, end) == 0)
            return std::nullopt;
        last_header = *header;
        return byte_string(data, end);
    }

    mpeg_ts_pat_main_header last_header;

private:
    mpeg_ts_table_assembly assembly_;
};

constexpr uint16_t pid = 0x1000;

byte_string section_with(const byte_string& body)
{
    return build_section({.table_id = 2}, body);
}

// All packets of one section.
byte_string packets_of(const byte_string& section)
{
    return packetiser{}.section(pid, section_unit(section));
}

byte_string first_packet(const byte_string& packets)
{
    return {packets.data(), packets.data() + packet_bytes};
}

byte_string without_first_packet(const byte_string& packets)
{
    return {packets.data() + packet_bytes, packets.data() + packets.size()};
}

const byte_string next_unit = packets_of(section_with(counting_bytes(30, 0x80)));

using sections = std::vector<byte_string>;

TEST(TableAssembly, DeliversAOnePacketSectionWhenTheNextUnitBegins)
{
    section_reader reader;
    const byte_string body = counting_bytes(20);
    EXPECT_EQ(reader.feed(packets_of(section_with(body))), sections{});
    EXPECT_EQ(reader.feed(next_unit), sections{body});
}

TEST(TableAssembly, DeliversHeaderAndDataWithoutTheChecksum)
{
    section_reader reader;
    const byte_string pat = build_pat({.section = {.table_id_extension = 0x77, .version_number = 9},
                                       .programmes = {{.number = 3, .pid = 0x123}}});
    reader.feed(packets_of(pat));
    const byte_string want = {0x00, 0x03, 0xE1, 0x23};
    EXPECT_EQ(reader.feed(next_unit), sections{want});
    EXPECT_EQ(reader.last_header.table_id, 0);
    EXPECT_EQ(reader.last_header.table_id_extension, 0x77);
    EXPECT_EQ(reader.last_header.version_number, 9);
    EXPECT_EQ(reader.last_header.section_length, 13);
    EXPECT_TRUE(reader.last_header.current_next_indicator);
}

TEST(TableAssembly, DeliversASplitSectionOnceWithItsLastPacket)
{
    for (const size_t body_bytes : {172u, 173u, 400u, 1009u, 4000u}) {
        SCOPED_TRACE(body_bytes);
        section_reader reader;
        const byte_string body = counting_bytes(body_bytes);
        const byte_string packets = packets_of(section_with(body));
        ASSERT_GT(packets.size(), packet_bytes);
        byte_string all_but_last = packets;
        all_but_last.resize(packets.size() - packet_bytes);
        const byte_string last(packets.end() - packet_bytes, packets.end());

        EXPECT_EQ(reader.feed(all_but_last), sections{});
        EXPECT_EQ(reader.feed(last), sections{body});
        EXPECT_EQ(reader.feed(next_unit), sections{});
    }
}

TEST(TableAssembly, DeliversASectionThatFillsItsPacketWhenTheNextUnitBegins)
{
    section_reader reader;
    const byte_string body = counting_bytes(171); // 4 + 1 + 8 + 171 + 4 = 188
    const byte_string packets = packets_of(section_with(body));
    ASSERT_EQ(packets.size(), packet_bytes);
    EXPECT_EQ(reader.feed(packets), sections{});
    EXPECT_EQ(reader.feed(next_unit), sections{body});
}

TEST(TableAssembly, DeliversACompleteSectionAtAContinuationPacketWithPayload)
{
    section_reader reader;
    const byte_string body = counting_bytes(20);
    reader.feed(packets_of(section_with(body)));
    const byte_string without_payload = build_ts_packet(
        {.pid = pid, .adaptation = adaptation_fields{.stuffing = 182}, .has_payload = false});
    EXPECT_EQ(reader.feed(without_payload), sections{});
    EXPECT_EQ(reader.feed(build_ts_packet({.pid = pid})), sections{body});
    EXPECT_EQ(reader.feed(next_unit), sections{});
}

TEST(TableAssembly, DeliversIdenticalSectionsEachTime)
{
    section_reader reader;
    const byte_string body = counting_bytes(20);
    const byte_string unit = packets_of(section_with(body));
    EXPECT_EQ(reader.feed(concat({unit, unit, unit, unit})), (sections{body, body, body}));
}

TEST(TableAssembly, TakesNothingFromAnIncompleteSection)
{
    section_reader reader;
    EXPECT_EQ(reader.take(), std::nullopt);
    const byte_string packets = packets_of(section_with(counting_bytes(400)));
    EXPECT_EQ(reader.feed(first_packet(packets)), sections{});
    EXPECT_EQ(reader.take(), std::nullopt);
}

TEST(TableAssembly, ForgetsAnIncompleteSectionWhenAUnitBegins)
{
    section_reader reader;
    const byte_string body = counting_bytes(20);
    reader.feed(first_packet(packets_of(section_with(counting_bytes(400)))));
    EXPECT_EQ(reader.feed(packets_of(section_with(body))), sections{});
    EXPECT_EQ(reader.feed(next_unit), sections{body});
}

TEST(TableAssembly, IgnoresAContinuationWithoutABeginning)
{
    section_reader reader;
    const byte_string packets = packets_of(section_with(counting_bytes(400)));
    EXPECT_EQ(reader.feed(without_first_packet(packets)), sections{});
    EXPECT_EQ(reader.feed(next_unit), sections{});
}

TEST(TableAssembly, BeginsAtThePointerField)
{
    section_reader reader;
    const byte_string body = counting_bytes(20);
    const byte_string unit = section_unit(section_with(body), counting_bytes(33));
    reader.feed(packetiser{}.section(pid, unit));
    EXPECT_EQ(reader.feed(next_unit), sections{body});
}

// Nothing hands the bytes before the pointed-to start to the section that they end.
TEST(TableAssembly, LosesASectionThatEndsBeforeThePointer)
{
    section_reader reader;
    const byte_string cut = section_with(counting_bytes(200));
    const byte_string body = counting_bytes(20);
    packetiser packets;
    byte_string unit = section_unit(cut);
    const byte_string rest(unit.data() + 184, unit.data() + unit.size());
    unit.resize(184);
    EXPECT_EQ(reader.feed(packets.section(pid, unit)), sections{});
    EXPECT_EQ(reader.feed(packets.section(pid, section_unit(section_with(body), rest))),
              sections{});
    EXPECT_EQ(reader.feed(next_unit), sections{body});
}

TEST(TableAssembly, DeliversOnlyTheFirstSectionOfAUnit)
{
    section_reader reader;
    const byte_string body = counting_bytes(20);
    const byte_string second = section_with(counting_bytes(24, 0x40));
    reader.feed(packets_of(concat({section_with(body), second})));
    EXPECT_EQ(reader.feed(next_unit), sections{body});
}

struct pointer_case {
    std::string_view name;
    size_t payload_bytes; // with the pointer_field
    uint8_t pointer_field;
    bool want; // begun
};

TEST(TableAssembly, APointerAtOrPastTheEndBeginsNothing)
{
    const byte_string body = counting_bytes(20);
    const byte_string rest_of_section = section_with(body);
    const pointer_case cases[] = {
        {.name = "at the last byte", .payload_bytes = 184, .pointer_field = 182, .want = true},
        {.name = "at the end", .payload_bytes = 184, .pointer_field = 183, .want = false},
        {.name = "past the end", .payload_bytes = 184, .pointer_field = 255, .want = false},
        {.name = "no byte behind it", .payload_bytes = 1, .pointer_field = 0, .want = false},
        {.name = "past a short payload", .payload_bytes = 3, .pointer_field = 5, .want = false},
    };
    for (const pointer_case& c : cases) {
        SCOPED_TRACE(c.name);
        // The payload's last byte is the section's first, where the pointer reaches that far.
        byte_string payload(c.payload_bytes, 0xFF);
        payload.back() = rest_of_section[0];
        payload.front() = c.pointer_field;
        ts_fields fields{.payload_unit_start = true, .pid = pid, .payload = payload};
        if (c.payload_bytes < 184)
            fields.adaptation = adaptation_fields{.stuffing = 184 - 2 - c.payload_bytes};
        const byte_string continuation = build_ts_packet(
            {.pid = pid,
             .payload = byte_string(rest_of_section.begin() + 1, rest_of_section.end())});

        section_reader reader;
        EXPECT_EQ(reader.feed(build_ts_packet(fields)), sections{});
        EXPECT_EQ(reader.feed(continuation), c.want ? sections{body} : sections{});
    }
}

TEST(TableAssembly, AUnitWithoutPayloadBeginsNothing)
{
    section_reader reader;
    reader.feed(build_ts_packet({.payload_unit_start = true,
                                 .pid = pid,
                                 .adaptation = adaptation_fields{.stuffing = 182},
                                 .has_payload = false}));
    reader.feed(build_ts_packet({.payload_unit_start = true,
                                 .pid = pid,
                                 .adaptation = adaptation_fields{.stuffing = 182}}));
    EXPECT_EQ(reader.feed(build_ts_packet({.pid = pid, .payload = section_with({})})), sections{});
}

TEST(TableAssembly, DropsASectionWhoseChecksumFails)
{
    section_reader reader;
    const byte_string body = counting_bytes(20);
    EXPECT_EQ(reader.feed(packets_of(build_section({.table_id = 2, .crc = 0}, body))), sections{});
    EXPECT_EQ(reader.feed(packets_of(section_with(body))), sections{});
    EXPECT_EQ(reader.feed(next_unit), sections{body});
}

TEST(TableAssembly, DropsASplitSectionWhoseChecksumFails)
{
    section_reader reader;
    byte_string packets = packets_of(section_with(counting_bytes(400)));
    packets[packet_bytes + 50] ^= 0x10;
    EXPECT_EQ(reader.feed(concat({packets, next_unit})), sections{});
}

struct length_case {
    std::string_view name;
    uint16_t section_length;
    size_t section_bytes; // really there
    bool want;
};

// The checksum over the declared length is right in every case, so that only the length decides.
TEST(TableAssembly, DeliversNoSectionShorterThanItsFixedFields)
{
    const length_case cases[] = {
        {.name = "length 0", .section_length = 0, .section_bytes = 3, .want = false},
        {.name = "length 4", .section_length = 4, .section_bytes = 7, .want = false},
        {.name = "length 8", .section_length = 8, .section_bytes = 11, .want = false},
        {.name = "length 9", .section_length = 9, .section_bytes = 12, .want = true},
    };
    for (const length_case& c : cases) {
        SCOPED_TRACE(c.name);
        byte_string section = build_section({.section_length = c.section_length}, {});
        section.resize(c.section_bytes);
        if (c.section_bytes >= 7) {
            const byte_string covered(section.begin(), section.end() - 4);
            const uint32_t crc = bitwise_crc32(covered);
            for (size_t i = 0; i < 4; i++)
                section[c.section_bytes - 4 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
        }
        section_reader reader;
        reader.feed(packets_of(section));
        EXPECT_EQ(reader.feed(next_unit), c.want ? sections{byte_string{}} : sections{});
    }
}

TEST(TableAssembly, DropsWhatExceedsItsCapacity)
{
    // 8 + body + 4 bytes in all, and section_length counts all but 3 of them.
    const byte_string fits = counting_bytes(capacity - 12);
    const byte_string exceeds = counting_bytes(capacity - 11);
    section_reader reader;
    EXPECT_EQ(reader.feed(packets_of(section_with(fits))), sections{fits});
    EXPECT_EQ(reader.feed(packets_of(section_with(exceeds))), sections{});
    EXPECT_EQ(reader.feed(next_unit), sections{});
}

TEST(TableAssembly, IsEmptyAfterAReset)
{
    mpeg_ts_table_assembly assembly;
    mpeg_ts_table_assembly_init(assembly, capacity);
    byte_string packet = packets_of(section_with(counting_bytes(20)));
    mpeg_ts_packet pkt;
    ASSERT_NE(mpeg_ts_decode(pkt, packet.data(), packet.size()), 0);
    mpeg_ts_table_assembly_begin(assembly, nullptr, pkt);
    mpeg_ts_table_assembly_complete(assembly);

    mpeg_ts_table_assembly_init(assembly, capacity);
    const mpeg_ts_pat_main_header* header = nullptr;
    const uint8_t* data = nullptr;
    const uint8_t* end = nullptr;
    EXPECT_EQ(mpeg_ts_table_assembly_take_ready(assembly, header, data, end), 0);
    mpeg_ts_table_assembly_complete(assembly);
    EXPECT_EQ(mpeg_ts_table_assembly_take_ready(assembly, header, data, end), 0);
}

} // namespace
