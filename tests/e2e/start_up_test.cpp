// What must hold before the first packet counts, and with which status a run ends otherwise.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

const std::string too_short = "Failed to refill until\n";
const std::string no_sync = "Failed to sync to MPEG TS\n";

// A first master playlist is written as soon as packets are processed.
const file_map first_master = {{"ch1.m3u8", master_playlist({})}};

byte_string cut_to(byte_string bytes, size_t count)
{
    bytes.resize(count);
    return bytes;
}

TEST(StartUp, RefusesAnInputShorterThanTheFill)
{
    const byte_string nulls = null_packets(start_up_fill_bytes / packet_bytes + 1);
    for (const size_t count : {size_t{0}, size_t{1}, size_t{188}, start_up_fill_bytes - 1}) {
        SCOPED_TRACE(count);
        EXPECT_TRUE(same_run(run_on(cut_to(nulls, count)),
                             {.ending = "exit 1", .standard_error = too_short}));
    }
}

TEST(StartUp, AnInputOfExactlyTheFillIsLookedAt)
{
    const byte_string nulls = null_packets(start_up_fill_bytes / packet_bytes + 1);
    EXPECT_TRUE(same_run(run_on(cut_to(nulls, start_up_fill_bytes)),
                         {.ending = "exit 2", .files = first_master}));
}

TEST(StartUp, AShortPipeIsRefusedLikeAShortFile)
{
    EXPECT_TRUE(same_run(
        run_program({.input = {.from = program_input::source::pipe, .bytes = null_packets(700)}}),
        {.ending = "exit 1", .standard_error = too_short}));
}

TEST(StartUp, AClosedStandardInputIsAnEmptyOne)
{
    EXPECT_TRUE(same_run(run_program({.input = {.from = program_input::source::closed}}),
                         {.ending = "exit 1", .standard_error = too_short}));
}

TEST(StartUp, RefusesATerminal)
{
    EXPECT_TRUE(same_run(
        run_program({.input = {.from = program_input::source::terminal}}),
        {.ending = "exit 1",
         .standard_error = "This program can only accept an MPEG transport stream from STDIN.\n"}));
}

TEST(StartUp, RefusesTheRootDirectoryWithStatusZero)
{
    const std::string refusal = "Do not run me in the root of the filesystem\n";
    EXPECT_TRUE(same_run(run_program({.directory = "/"}), {.standard_error = refusal}));
    EXPECT_TRUE(same_run(run_program({.arguments = {"--clear-old-only"}, .directory = "/"}),
                         {.standard_error = refusal}));
}

TEST(StartUp, JudgesOptionsThenTheTerminalThenTheDirectory)
{
    const program_input terminal{.from = program_input::source::terminal};
    EXPECT_TRUE(same_run(run_program({.arguments = {"--x"}, .input = terminal, .directory = "/"}),
                         {.ending = "exit 1", .standard_error = "Unknown switch 'x'\n"}));
    EXPECT_TRUE(same_run(
        run_program({.input = terminal, .directory = "/"}),
        {.ending = "exit 1",
         .standard_error = "This program can only accept an MPEG transport stream from STDIN.\n"}));
}

TEST(StartUp, RunsInADirectoryWhoseNameDoesNotFitTheCheck)
{
    const std::string deep = std::string(100, 'd') + "/" + std::string(100, 'e') + "/";
    const scratch_directory scratch;
    scratch.add({{deep, {}}});
    EXPECT_TRUE(same_run(run_program({.directory = (scratch.path() / deep).string()}),
                         {.ending = "exit 1", .standard_error = too_short}));
}

TEST(StartUp, FailsWhenTheFirstCandidateForSyncIsNone)
{
    byte_string bytes(start_up_fill_bytes, 0);
    bytes[1000] = 0x47;
    EXPECT_TRUE(same_run(run_on(bytes), {.ending = "exit 1", .standard_error = no_sync}));
}

TEST(StartUp, FailsWhenAnyOfTheEightSyncBytesIsMissing)
{
    for (size_t k = 1; k <= 7; k++) {
        SCOPED_TRACE(k);
        stream_builder stream;
        stream.start_up();
        byte_string bytes = stream.bytes();
        bytes[k * packet_bytes] = 0x46;
        EXPECT_TRUE(same_run(run_on(bytes), {.ending = "exit 1", .standard_error = no_sync}));
    }
}

TEST(StartUp, FailsWhenTheInputEndsWithoutASyncByte)
{
    EXPECT_TRUE(same_run(run_on(byte_string(start_up_fill_bytes, 0)),
                         {.ending = "exit 1", .standard_error = no_sync}));
}

TEST(StartUp, BytesBeforeTheFirstSyncByteArePassedOver)
{
    stream_builder stream;
    stream.raw(counting_bytes(64)); // 0 to 63: no 0x47
    stream.start_up();
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, {})));
}

// The packets that are handled while the look-ahead of 1540096 bytes stays unread behind them:
// those that begin at or before 2097152 - 1540096 - 188.
constexpr size_t last_start_up_packet = 2962;

struct late_table_case {
    std::string_view name;
    size_t pairs;  // of tables at the stream's start
    bool late_pat; // the late packet is a PAT, else a PMT
    size_t position;
    std::string want_error;
    std::string want_ending;
};

TEST(StartUp, TablesThatComeTooLateEndTheRunWithoutAWord)
{
    const std::string lock = "PAT: Locking onto Program 0001h PMT 1000h\n"
                             "Got PAT. Chose PMT=1000h\n";
    const late_table_case cases[] = {
        {.name = "the last PMT in time",
         .pairs = 2,
         .late_pat = false,
         .position = last_start_up_packet,
         .want_error = programme_lines() + "Stream EOF\n",
         .want_ending = "exit 0"},
        {.name = "the last PMT one packet late",
         .pairs = 2,
         .late_pat = false,
         .position = last_start_up_packet + 1,
         .want_error = lock,
         .want_ending = "exit 2"},
        {.name = "the last PAT in time, and no PMT behind it",
         .pairs = 1,
         .late_pat = true,
         .position = last_start_up_packet,
         .want_error = lock,
         .want_ending = "exit 2"},
        {.name = "the last PAT one packet late",
         .pairs = 1,
         .late_pat = true,
         .position = last_start_up_packet + 1,
         .want_error = "",
         .want_ending = "exit 2"},
    };
    for (const late_table_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        const byte_string section = c.late_pat ? build_pat(stream.pat) : build_pmt(stream.pmt);
        stream.tables(c.pairs).null_until(c.position * packet_bytes);
        stream.packet({.payload_unit_start = true,
                       .pid = static_cast<uint16_t>(c.late_pat ? 0 : 0x1000),
                       .payload = section_unit(section)});
        stream.null_until(start_up_fill_bytes + 4000 * packet_bytes);
        EXPECT_TRUE(same_run(
            run_on(stream.bytes()),
            {.ending = c.want_ending, .standard_error = c.want_error, .files = first_master}));
    }
}

// The same bytes through a pipe are handled alike, whatever the sizes of the reads.
TEST(StartUp, APipeIsFilledNoFurtherThanAFile)
{
    stream_builder stream;
    stream.null_until((last_start_up_packet + 1) * packet_bytes).tables(3);
    stream.null_until(2 * start_up_fill_bytes);
    EXPECT_TRUE(same_run(
        run_program({.input = {.from = program_input::source::pipe, .bytes = stream.bytes()}}),
        {.ending = "exit 2", .files = first_master}));
}

TEST(StartUp, RefusesAProgrammeWithoutVideoAndAudio)
{
    stream_builder stream({.video = video_codec::none, .audio = audio_codec::none});
    stream.start_up();
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         {.ending = "exit 1",
                          .standard_error = "PAT: Locking onto Program 0001h PMT 1000h\n"
                                            "Got PAT. Chose PMT=1000h\n"
                                            "Got PMT. Chose audio=0000h video=0000h.\n"
                                            "Not enough to HLS chop by\n",
                          .files = first_master}));
}

TEST(StartUp, AProgrammeWithOnlyVideoOrOnlyAudioRuns)
{
    stream_builder video({.audio = audio_codec::none});
    video.start_up();
    EXPECT_TRUE(same_run(run_on(video.bytes()),
                         expected_default_run(video, {.programme = {.audio_pid = 0}})));

    stream_builder audio({.video = video_codec::none});
    audio.start_up();
    EXPECT_TRUE(same_run(run_on(audio.bytes()),
                         expected_default_run(audio, {.programme = {.video_pid = 0}})));
}

TEST(StartUp, WithoutMultilevelNoMasterPlaylistIsWritten)
{
    stream_builder stream;
    stream.start_up();
    EXPECT_TRUE(same_run(run_on(stream.bytes(), {"--no-multilevel"}),
                         {.standard_error = programme_lines() + "Stream EOF\n"}));
}

} // namespace
