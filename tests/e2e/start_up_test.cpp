// What must hold before the first packet counts, and with which status a run ends otherwise.

#include <unistd.h>

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

// Otherwise a fragment would get descriptor 2, and the messages with it.
TEST(StartUp, ClosedStandardOutputAndErrorAreNoPlaceForFragments)
{
    stream_builder stream;
    stream.start_up();
    const size_t begin = stream.mark();
    stream.keyframe(900000).null(3);
    expected_run want = expected_default_run(stream, {.starts = {begin}});
    want.standard_error = "";
    EXPECT_TRUE(same_run(run_program({.input = {.bytes = stream.bytes()},
                                      .before_start =
                                          [] {
                                              return close(1) == 0 && close(2) == 0;
                                          }}),
                         want));
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

constexpr size_t window_bytes = 8388608;
constexpr size_t look_ahead_bytes = 1540096;

// How much is buffered when the search for the tables begins. Nothing is read until it is over.
struct start_up_input {
    std::string_view name;
    program_input::source from;
    size_t length; // of the whole input
    size_t filled;
};

const start_up_input start_up_inputs[] = {
    {.name = "a pipe, in reads of which one ends with the fill",
     .from = program_input::source::pieces,
     .length = start_up_fill_bytes + 1000000,
     .filled = start_up_fill_bytes},
    {.name = "a file that is longer than the window",
     .from = program_input::source::file,
     .length = window_bytes + 1000000,
     .filled = window_bytes},
    {.name = "a file that is shorter",
     .from = program_input::source::file,
     .length = 4000000,
     .filled = 4000000},
};

// The last of the packets that are handled while the look-ahead stays unread behind them.
size_t last_start_up_packet(size_t filled)
{
    return (filled - look_ahead_bytes - packet_bytes) / packet_bytes;
}

struct late_table_case {
    std::string_view name;
    size_t pairs;        // of tables at the stream's start
    bool late_pat;       // the late packet is a PAT, else a PMT
    size_t packets_late; // behind the last one that is handled
    std::string want_error;
    std::string want_ending;
};

TEST(StartUp, TablesThatComeTooLateEndTheRunWithoutAWord)
{
    EXPECT_EQ(last_start_up_packet(start_up_fill_bytes), 557056 / packet_bytes - 1);
    EXPECT_EQ(last_start_up_packet(window_bytes), 6848512 / packet_bytes - 1);

    const std::string lock = "PAT: Locking onto Program 0001h PMT 1000h\n"
                             "Got PAT. Chose PMT=1000h\n";
    const late_table_case cases[] = {
        {.name = "the last PMT in time",
         .pairs = 2,
         .late_pat = false,
         .packets_late = 0,
         .want_error = programme_lines() + "Stream EOF\n",
         .want_ending = "exit 0"},
        {.name = "the last PMT one packet late",
         .pairs = 2,
         .late_pat = false,
         .packets_late = 1,
         .want_error = lock,
         .want_ending = "exit 2"},
        {.name = "the last PAT in time, and no PMT behind it",
         .pairs = 1,
         .late_pat = true,
         .packets_late = 0,
         .want_error = lock,
         .want_ending = "exit 2"},
        {.name = "the last PAT one packet late",
         .pairs = 1,
         .late_pat = true,
         .packets_late = 1,
         .want_error = "",
         .want_ending = "exit 2"},
    };
    for (const start_up_input& input : start_up_inputs) {
        SCOPED_TRACE(input.name);
        for (const late_table_case& c : cases) {
            SCOPED_TRACE(c.name);
            stream_builder stream;
            const byte_string section = c.late_pat ? build_pat(stream.pat) : build_pmt(stream.pmt);
            const size_t position = last_start_up_packet(input.filled) + c.packets_late;
            stream.tables(c.pairs).null_until(position * packet_bytes);
            stream.packet({.payload_unit_start = true,
                           .pid = static_cast<uint16_t>(c.late_pat ? 0 : 0x1000),
                           .payload = section_unit(section)});
            stream.null_until(input.length);
            EXPECT_TRUE(same_run(
                run_program(
                    {.input = {.from = input.from, .bytes = cut_to(stream.bytes(), input.length)}}),
                {.ending = c.want_ending, .standard_error = c.want_error, .files = first_master}));
        }
    }
}

// Whatever the sizes of the reads.
TEST(StartUp, APipeIsFilledByLessThanItHoldsBeyondTheFill)
{
    constexpr size_t pipe_bytes = 65536;
    stream_builder stream;
    stream.null_until((last_start_up_packet(start_up_fill_bytes + pipe_bytes) + 1) * packet_bytes);
    stream.tables(3).null_until(2 * start_up_fill_bytes);
    EXPECT_TRUE(same_run(
        run_program({.input = {.from = program_input::source::pipe, .bytes = stream.bytes()}}),
        {.ending = "exit 2", .files = first_master}));
}

// The fill ends within a datagram of seven packets, and the fragment spans that place.
TEST(StartUp, DatagramsAreReadWhole)
{
    stream_builder stream;
    stream.tables(3);
    const size_t begin = stream.mark();
    stream.keyframe(900000).null_until(2 * start_up_fill_bytes).tables(1);
    expected_run want = expected_default_run(stream, {.starts = {begin}});
    want.files["ch1.m3u8"] = master_playlist({.resolution = "320x240"});
    EXPECT_TRUE(same_run(
        run_program({.input = {.from = program_input::source::datagrams, .bytes = stream.bytes()}}),
        want));
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
