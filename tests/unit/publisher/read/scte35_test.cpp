#include "publisher/read/scte35.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/bytes.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/crc32.hpp"

namespace
{

byte_string from_hexadecimal(std::string_view digits)
{
    byte_string bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(
            static_cast<uint8_t>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
    return bytes;
}

struct splice_fields {
    uint8_t protocol_version = 0;
    bool encrypted = false;
    int64_t pts_adjustment = 0;
    bool tells_length = true;
    uint8_t type = 5;
    byte_string command = {};
    byte_string descriptors = {};
};

byte_string section_of(const splice_fields& fields)
{
    byte_string body = {fields.protocol_version};
    const auto adjustment = static_cast<uint64_t>(fields.pts_adjustment);
    body.push_back(static_cast<uint8_t>((fields.encrypted ? 0x80 : 0) | (adjustment >> 32 & 1)));
    for (int shift = 24; shift >= 0; shift -= 8)
        body.push_back(static_cast<uint8_t>(adjustment >> shift));
    const size_t length = fields.tells_length ? fields.command.size() : 0xFFF;
    append(body, byte_string{0, 0xFF, static_cast<uint8_t>(0xF0 | length >> 8),
                             static_cast<uint8_t>(length), fields.type});
    append(body, fields.command);
    append(body, byte_string{static_cast<uint8_t>(fields.descriptors.size() >> 8),
                             static_cast<uint8_t>(fields.descriptors.size())});
    append(body, fields.descriptors);
    const size_t all = body.size() + crc32_bytes;
    byte_string section = {0xFC, static_cast<uint8_t>(0x30 | all >> 8), static_cast<uint8_t>(all)};
    append(section, body);
    section.resize(section.size() + crc32_bytes);
    write_ts_checksum(section.data() + section.size() - crc32_bytes, section.data(),
                      section.data() + section.size() - crc32_bytes);
    return section;
}

// 33 bits behind a flag and six reserved ones.
byte_string long_time(int64_t ticks)
{
    return {static_cast<uint8_t>(0xFE | (ticks >> 32 & 1)), static_cast<uint8_t>(ticks >> 24),
            static_cast<uint8_t>(ticks >> 16), static_cast<uint8_t>(ticks >> 8),
            static_cast<uint8_t>(ticks)};
}

byte_string insert(uint8_t flags, const byte_string& times, const byte_string& duration = {})
{
    byte_string command = {0, 0, 0, 7, 0x7F, flags};
    append(command, times);
    append(command, duration);
    append(command, byte_string{0, 1, 0, 0});
    return command;
}

byte_string segmentation(uint8_t type, uint8_t event)
{
    return {2, 15, 'C', 'U', 'E', 'I', 0, 0, 0, event, 0x7F, 0xBF, 0, 0, type, 1, 1};
}

splice_cue only(const byte_string& section)
{
    const auto found = read_splices(section);
    EXPECT_EQ(found.size(), 1u);
    return found.empty() ? splice_cue{} : found[0];
}

} // namespace

// The samples of ANSI/SCTE 35, 14.
TEST(Splices, AreReadFromTheSamplesOfTheStandard)
{
    const std::string start = "FC3034000000000000FFFFF00506FE72BD0050001E021C435545494800008E7FCF00"
                              "01A599B00808000000002CA0A18A3402009AC9D17E";
    EXPECT_EQ(only(from_hexadecimal(start)), (splice_cue{.kind = splice_kind::out,
                                                         .event = "segmentation-1207959694",
                                                         .type = 0x34,
                                                         .time = 0x72BD0050,
                                                         .duration = 0x1A599B0,
                                                         .section = "0x" + start}));
    const std::string end = "FC302F000000000000FFFFF00506FE746290A000190217435545494800008E7F9F0808"
                            "000000002CA0A18A350200A9CC6758";
    EXPECT_EQ(only(from_hexadecimal(end)), (splice_cue{.kind = splice_kind::in,
                                                       .event = "segmentation-1207959694",
                                                       .type = 0x34,
                                                       .time = 0x746290A0,
                                                       .section = "0x" + end}));
    const std::string insert = "FC302F000000000000FFFFF014054800008F7FEFFE7369C02EFE0052CCF5000000"
                               "00000A0008435545490000013562DBA30A";
    EXPECT_EQ(only(from_hexadecimal(insert)), (splice_cue{.kind = splice_kind::out,
                                                          .event = "insert-1207959695",
                                                          .time = 0x7369C02E,
                                                          .duration = 0x52CCF5,
                                                          .returns = true,
                                                          .section = "0x" + insert}));
    // A placement opportunity ends and the programme goes on: two segmentations of one signal.
    const std::string both =
        "FC3048000000000000FFFFF00506FE7A4D88B60032021743554549480000187F9F08"
        "08000000002CCBC344110000021743554549480000197F9F0808000000002CA4DBA010"
        "00009972E343";
    const auto two = read_splices(from_hexadecimal(both));
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[0].type, 0x11);
    EXPECT_EQ(two[0].event, "segmentation-1207959576");
    EXPECT_EQ(two[1].type, 0x10);
    for (const splice_cue& told : two) {
        EXPECT_EQ(told.kind, splice_kind::command);
        EXPECT_EQ(told.time, 0x7A4D88B6);
        EXPECT_EQ(told.section, "0x" + both);
    }
}

TEST(Splices, AreMovedByTheAdjustmentRoundTheClock)
{
    const int64_t late = pts_modulus - 100;
    const auto told =
        only(section_of({.pts_adjustment = 300, .command = insert(0xCF, long_time(late))}));
    EXPECT_EQ(told.time, 200);
    EXPECT_EQ(told.kind, splice_kind::out);
    EXPECT_EQ(told.event, "insert-7");
    EXPECT_EQ(only(section_of({.command = insert(0x4F, long_time(late))})).kind, splice_kind::in);
}

TEST(Splices, AreReadWhateverTheCommandLeavesOut)
{
    EXPECT_EQ(only(section_of({.command = insert(0xDF, {})})).time, -1);
    EXPECT_TRUE(only(section_of({.command = insert(0xDF, {})})).immediate);
    EXPECT_TRUE(only(section_of({.command = insert(0xCF, {0x7F})})).immediate) << "no time in it";
    byte_string components = {2, 1};
    append(components, long_time(5000));
    components.push_back(2);
    append(components, long_time(6000));
    EXPECT_EQ(only(section_of({.command = insert(0x8F, components)})).time, 5000);
    EXPECT_EQ(
        only(section_of({.command = insert(0xEF, long_time(5000), long_time(900000))})).duration,
        900000);
    EXPECT_EQ(
        only(section_of({.tells_length = false, .command = insert(0xCF, long_time(5000))})).time,
        5000);
    EXPECT_EQ(only(section_of({.command = {0, 0, 0, 7, 0xFF}})).kind, splice_kind::cancel);
}

TEST(Splices, OfASignalAreItsSegmentations)
{
    const auto signal = [](const byte_string& descriptors) {
        return read_splices(
            section_of({.type = 6, .command = long_time(5000), .descriptors = descriptors}));
    };
    const auto of = [&](uint8_t type) {
        return signal(segmentation(type, 9)).at(0);
    };
    for (const uint8_t type : byte_string{0x22, 0x30, 0x32, 0x34, 0x36, 0x44, 0x46}) {
        EXPECT_EQ(of(type).kind, splice_kind::out) << int{type};
        EXPECT_EQ(of(static_cast<uint8_t>(type + 1)).kind, splice_kind::in) << int{type};
        EXPECT_EQ(of(type).type, type);
        EXPECT_EQ(of(static_cast<uint8_t>(type + 1)).type, type) << "of the same pair";
    }
    for (const uint8_t type :
         byte_string{0x00, 0x01, 0x10, 0x11, 0x20, 0x21, 0x24, 0x38, 0x40, 0x50})
        EXPECT_EQ(of(type).kind, splice_kind::command) << int{type};

    byte_string two = segmentation(0x35, 9);
    append(two, segmentation(0x30, 10));
    const auto told = signal(two);
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0].kind, splice_kind::in);
    EXPECT_EQ(told[1].kind, splice_kind::out);
    EXPECT_EQ(told[1].event, "segmentation-10");

    ASSERT_EQ(signal({}).size(), 1u);
    EXPECT_TRUE(signal({})[0].event.starts_with("signal-"));
    EXPECT_EQ(signal({0x00, 8, 'C', 'U', 'E', 'I', 0, 0, 0, 1})[0].kind, splice_kind::command);
    EXPECT_TRUE(signal({2, 4, 'c', 'u', 'e', 'i'})[0].event.starts_with("signal-"))
        << "of someone else";
    byte_string cancelled = segmentation(0x34, 9);
    cancelled[10] = 0xFF;
    EXPECT_EQ(signal(cancelled).at(0).kind, splice_kind::cancel);

    byte_string cut = segmentation(0x34, 9);
    cut[1] = 14;
    cut.pop_back();
    EXPECT_TRUE(signal(cut).empty()) << "a descriptor that ends too early";
    cut[1] = 15;
    EXPECT_TRUE(signal(cut).empty()) << "a loop that ends too early";
}

TEST(Splices, MayBeByComponentsOfASegmentation)
{
    // program_segmentation_flag is not set; two components, and a duration.
    const byte_string descriptor = {2, 32, 'C',  'U', 'E', 'I', 0, 0, 0,    9, 0x7F, 0x7F,
                                    2, 1,  0xFE, 0,   0,   0,   0, 2, 0xFE, 0, 0,    0,
                                    0, 0,  0,    1,   0,   0,   0, 0, 0x36, 1};
    byte_string whole = descriptor;
    whole[1] = static_cast<uint8_t>(whole.size() + 1 - 2);
    whole.push_back(1);
    const auto told =
        only(section_of({.type = 6, .command = long_time(5000), .descriptors = whole}));
    EXPECT_EQ(told.kind, splice_kind::out);
    EXPECT_EQ(told.duration, 0x10000);
}

TEST(Splices, AreNotThereInWhatIsNotSound)
{
    const splice_fields good{.command = insert(0xCF, long_time(5000))};
    const byte_string section = section_of(good);
    ASSERT_EQ(read_splices(section).size(), 1u);
    for (size_t length = 0; length < section.size(); length++)
        EXPECT_TRUE(read_splices({section.data(), length}).empty()) << length;
    for (size_t at = 0; at < section.size(); at++) {
        byte_string damaged = section;
        damaged[at] ^= 0x10;
        EXPECT_TRUE(read_splices(damaged).empty()) << at;
    }
    splice_fields other = good;
    other.encrypted = true;
    EXPECT_TRUE(read_splices(section_of(other)).empty());
    other = good;
    other.protocol_version = 1;
    EXPECT_TRUE(read_splices(section_of(other)).empty());
    for (const uint8_t type : byte_string{0, 4, 7, 255}) {
        other = good;
        other.type = type;
        EXPECT_TRUE(read_splices(section_of(other)).empty()) << "nothing that a playlist tells";
    }
    // A command that ends before what it announces.
    for (size_t length = 0; length < good.command.size(); length++) {
        other = good;
        other.command.resize(length);
        EXPECT_TRUE(read_splices(section_of(other)).empty()) << length;
    }
}
