// Which programme is locked and which of its streams are followed, as reported on standard error.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

struct selection_case {
    std::string_view name;
    std::vector<pat_programme> programmes = {{.number = 1, .pid = 0x1000}};
    std::vector<pmt_stream> streams = {{.stream_type = 0x1B, .pid = 0x101},
                                       {.stream_type = 0x0F, .pid = 0x102}};
    expected_programme want = {};
};

void expect_selections(std::initializer_list<selection_case> cases)
{
    for (const selection_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream({.pmt_pid = static_cast<uint16_t>(c.want.pmt_pid)});
        stream.pat.programmes = c.programmes;
        stream.pmt.streams = c.streams;
        stream.start_up();
        EXPECT_TRUE(
            same_run(run_on(stream.bytes()), expected_default_run(stream, {.programme = c.want})));
    }
}

TEST(ProgrammeSelection, LocksOntoTheFirstProgrammeOfThePat)
{
    expect_selections({
        {.name = "the only one"},
        {.name = "the first of two",
         .programmes = {{.number = 0x1234, .pid = 0x1FFE}, {.number = 2, .pid = 0x20}},
         .want = {.number = 0x1234, .pmt_pid = 0x1FFE}},
        {.name = "behind the network entry",
         .programmes = {{.number = 0, .pid = 0x10},
                        {.number = 7, .pid = 0x300},
                        {.number = 1, .pid = 0x1000}},
         .want = {.number = 7, .pmt_pid = 0x300}},
        {.name = "behind an entry with PID 0",
         .programmes = {{.number = 3, .pid = 0}, {.number = 4, .pid = 0x400}},
         .want = {.number = 4, .pmt_pid = 0x400}},
        {.name = "whatever the reserved bits are",
         .programmes = {{.number = 5, .pid = 0x500, .reserved = 0}},
         .want = {.number = 5, .pmt_pid = 0x500}},
    });
}

TEST(ProgrammeSelection, TakesTheFirstVideoAndTheFirstAudioOfThePmt)
{
    expect_selections({
        {.name = "MPEG-2 video before H.264",
         .streams = {{.stream_type = 0x02, .pid = 0x111},
                     {.stream_type = 0x1B, .pid = 0x112},
                     {.stream_type = 0x0F, .pid = 0x102}},
         .want = {.video_pid = 0x111}},
        {.name = "MPEG-1 video",
         .streams = {{.stream_type = 0x01, .pid = 0x111}, {.stream_type = 0x04, .pid = 0x112}},
         .want = {.audio_pid = 0x112, .video_pid = 0x111}},
        {.name = "two AAC streams and MPEG audio",
         .streams = {{.stream_type = 0x0F, .pid = 0x121},
                     {.stream_type = 0x0F, .pid = 0x122},
                     {.stream_type = 0x03, .pid = 0x123},
                     {.stream_type = 0x1B, .pid = 0x124}},
         .want = {.audio_pid = 0x121, .video_pid = 0x124}},
        {.name = "streams of other types",
         .streams = {{.stream_type = 0x24, .pid = 0x131},
                     {.stream_type = 0x06, .pid = 0x132},
                     {.stream_type = 0x81, .pid = 0x133},
                     {.stream_type = 0x11, .pid = 0x134},
                     {.stream_type = 0x10, .pid = 0x135},
                     {.stream_type = 0x1B, .pid = 0x136}},
         .want = {.audio_pid = 0, .video_pid = 0x136}},
        {.name = "no video",
         .streams = {{.stream_type = 0x03, .pid = 0x141}},
         .want = {.audio_pid = 0x141, .video_pid = 0}},
        {.name = "descriptors are passed over",
         .streams =
             {{.stream_type = 0x05, .pid = 0x151, .descriptors = {0x1B, 0xE1, 0x77, 0xF0, 0x00}},
              {.stream_type = 0x1B, .pid = 0x152}},
         .want = {.audio_pid = 0, .video_pid = 0x152}},
    });
}

// Tables that are sent before the good ones. They must change nothing.
struct ignored_case {
    std::string_view name;
    uint16_t pid;
    byte_string section;
};

TEST(ProgrammeSelection, IgnoresSectionsThatDoNotApply)
{
    const std::vector<pat_programme> other = {{.number = 9, .pid = 0x900}};
    const pmt_stream stray{.stream_type = 0x1B, .pid = 0x999};
    const auto pat = [&other](const section_fields& fields) {
        return build_pat({.section = fields, .programmes = other});
    };
    const auto pmt = [&stray](const section_fields& fields) {
        return build_pmt({.section = fields, .streams = {stray}});
    };
    const ignored_case cases[] = {
        {.name = "PAT of another table_id", .pid = 0, .section = pat({.table_id = 1})},
        {.name = "PAT without section_syntax_indicator",
         .pid = 0,
         .section = pat({.section_syntax_indicator = false})},
        {.name = "PAT with the private bit", .pid = 0, .section = pat({.private_bit = true})},
        {.name = "PAT to come", .pid = 0, .section = pat({.current_next_indicator = false})},
        {.name = "PAT with a bad checksum", .pid = 0, .section = pat({.crc = 0x12345678})},
        {.name = "PAT without programmes", .pid = 0, .section = build_pat({.programmes = {}})},
        {.name = "PAT with only the network entry",
         .pid = 0,
         .section = build_pat({.programmes = {{.number = 0, .pid = 0x10}}})},
        {.name = "PAT on another PID", .pid = 0x11, .section = pat({})},
        {.name = "PMT of another table_id", .pid = 0x1000, .section = pmt({.table_id = 0x42})},
        {.name = "PMT to come",
         .pid = 0x1000,
         .section = pmt({.table_id = 2, .current_next_indicator = false})},
        {.name = "PMT with a bad checksum",
         .pid = 0x1000,
         .section = pmt({.table_id = 2, .crc = 1})},
        {.name = "PMT of another programme's PID", .pid = 0x1001, .section = pmt({.table_id = 2})},
        {.name = "PMT that cannot be decoded",
         .pid = 0x1000,
         .section = build_pmt({.streams = {stray}, .left_over = {0x0F}})},
    };
    for (const ignored_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        if (c.pid >= 0x1000) { // a PMT PID is listened to once the PAT has named it
            const ts_fields pat_packet{.payload_unit_start = true,
                                       .pid = 0,
                                       .payload = section_unit(build_pat(stream.pat))};
            stream.packet(pat_packet).packet(pat_packet);
        }
        stream.raw(packetiser{}.section(c.pid, section_unit(c.section))).tables(3);
        stream.null_until(start_up_fill_bytes);
        EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, {})));
    }
}

TEST(ProgrammeSelection, KeepsTheLockWhateverLaterPatsSay)
{
    stream_builder stream;
    stream.tables(2);
    stream.pat = {.section = {.version_number = 1},
                  .programmes = {{.number = 2, .pid = 0x200}, {.number = 1, .pid = 0x300}}};
    stream.tables(3).null_until(start_up_fill_bytes);
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, {})));
}

TEST(ProgrammeSelection, ASplitPmtIsPutTogether)
{
    stream_builder stream;
    stream.pmt.program_info = build_descriptor(0x05, counting_bytes(200));
    stream.pmt.streams.front().descriptors = build_descriptor(0xF0, counting_bytes(250));
    stream.start_up();
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, {})));
}

TEST(ProgrammeSelection, APmtWithoutStreamsCountsAsThePmt)
{
    stream_builder stream;
    stream.pmt.streams.clear();
    stream.start_up();
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         {.ending = "exit 1",
                          .standard_error = programme_lines({.audio_pid = 0, .video_pid = 0}) +
                                            "Not enough to HLS chop by\n",
                          .files = {{"ch1.m3u8", master_playlist({})}}}));
}

// A PMT is handled when the next one begins, so the change takes effect there.
TEST(ProgrammeSelection, AChangedPmtMovesTheFollowedVideoAtOnce)
{
    stream_builder stream;
    stream.start_up();
    const size_t first = stream.mark();
    stream.keyframe(900000);
    stream.pmt.streams.front().pid = 0x201;
    stream.tables(2);
    stream.keyframe(1800000); // on the old PID
    const size_t second = stream.mark();
    stream.pes(0x201, {.pts = 2700000, .payload = h264_keyframe({.width = 640, .height = 480}, 9)});
    stream.tables().null(1);
    EXPECT_TRUE(
        same_run(run_on(stream.bytes()),
                 expected_default_run(stream, {.starts = {first, second},
                                               .durations = {"20.000"},
                                               .master = {.bandwidth = (second - first) * 8 / 20,
                                                          .resolution = "640x480"}})));
}

TEST(ProgrammeSelection, AnUndecodablePmtUnfollowsAllUntilTheNextGoodOne)
{
    stream_builder stream;
    stream.start_up();
    const size_t first = stream.mark();
    stream.keyframe(900000);
    const pmt_fields good = stream.pmt;
    stream.pmt.left_over = {0x1B};
    stream.tables(2);
    stream.keyframe(1800000); // nobody looks at it
    stream.pmt = good;
    stream.tables(2);
    const size_t second = stream.mark();
    stream.keyframe(2700000);
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         expected_default_run(stream, {.starts = {first, second},
                                                       .durations = {"20.000"},
                                                       .master = {.resolution = "320x240"}})));
}

} // namespace
