// Options are judged before anything else, so these runs have no input: a command line that is
// accepted gets as far as finding that out.

#include <gtest/gtest.h>

#include "tests/support/expect_run.hpp"

namespace
{

constexpr std::string_view usage =
    "vorn_mpegts_to_hls [options]\n"
    "MPEG-TS to HLS conversion utility. Version " VORN_VERSION "\n"
    " --frag-duration <n>              HLS fragment duration in seconds\n"
    " --frag-backlog <n>               How many fragments to keep before discarding at any time\n"
    " --frag-name <name>               HLS fragment name base (name_%d.ts)\n"
    " --m3u8-name <name>               M3U8 file name\n"
    " --base-url <url>                 Base URL to append to fragments in M3U8\n"
    " --clear-old                      Clear previous M3U8 and HLS fragments before starting\n"
    " --clear-old-only                 Same as --clear-old, but exit after clearing\n"
    " --no-padding                     Omit padding packets (variable-bitrate MPEG-TS)\n"
    " --start-pat-pmt                  Filter PAT/PMT and place at HLS fragment start\n"
    " --pat-nit-not-first              Filter PAT table, make sure NIT cannot be first\n"
    " --no-multilevel                  Keep M3U8 at one level (this disables VTT subtitles)\n"
    " --separate-streams               Write audio and video to separate streams\n"
    " --sap                            Write secondary audio\n";

const std::string accepted = "Failed to refill until\n";
const std::string both_streams_warnings =
    "Separate streams AND no multilevel are incompatible options!\n"
    "Separate streams REQUIRES --start-pat-pmt option\n";

using arguments = std::vector<std::string>;

struct command_line_case {
    std::string_view name;
    arguments args;
    std::string want_error = {};
};

void expect_status_1(std::initializer_list<command_line_case> cases)
{
    for (const command_line_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(
            same_run(run_on({}, c.args), {.ending = "exit 1", .standard_error = c.want_error}));
    }
}

TEST(CommandLine, HelpPrintsTheUsage)
{
    for (const char* argument : {"-h", "--h", "--help", "-help", "----help"}) {
        SCOPED_TRACE(argument);
        EXPECT_TRUE(same_run(run_on({}, {argument}),
                             {.ending = "exit 1", .standard_error = std::string(usage)}));
    }
}

TEST(CommandLine, HelpEndsTheParsing)
{
    expect_status_1({
        {.name = "before a bad argument",
         .args = {"--sap", "--help", "bad"},
         .want_error = std::string(usage)},
        {.name = "behind a bad number", .args = {"--frag-duration", "0", "--help"}},
    });
}

TEST(CommandLine, UnknownSwitchesAreNamed)
{
    expect_status_1({
        {.name = "an abbreviation", .args = {"--hel"}, .want_error = "Unknown switch 'hel'\n"},
        {.name = "a longer name", .args = {"--helper"}, .want_error = "Unknown switch 'helper'\n"},
        {.name = "a lone dash", .args = {"-"}, .want_error = "Unknown switch ''\n"},
        {.name = "two dashes", .args = {"--"}, .want_error = "Unknown switch ''\n"},
        {.name = "name=value",
         .args = {"--frag-duration=5"},
         .want_error = "Unknown switch 'frag-duration=5'\n"},
        {.name = "upper case", .args = {"--SAP"}, .want_error = "Unknown switch 'SAP'\n"},
        {.name = "behind a good one",
         .args = {"--sap", "---x-y"},
         .want_error = "Unknown switch 'x-y'\n"},
    });
}

TEST(CommandLine, ArgumentsWithoutDashAreUnexpected)
{
    expect_status_1({
        {.name = "a word", .args = {"help"}, .want_error = "Unexpected arg\n"},
        {.name = "empty", .args = {""}, .want_error = "Unexpected arg\n"},
        {.name = "behind a complete option",
         .args = {"--frag-duration", "5", "6"},
         .want_error = "Unexpected arg\n"},
    });
}

TEST(CommandLine, NumbersOutOfRangeFailSilently)
{
    expect_status_1({
        {.name = "duration 0", .args = {"--frag-duration", "0"}},
        {.name = "duration 21", .args = {"--frag-duration", "21"}},
        {.name = "duration -1", .args = {"--frag-duration", "-1"}},
        {.name = "duration without digits", .args = {"--frag-duration", "x"}},
        {.name = "empty duration", .args = {"--frag-duration", ""}},
        {.name = "backlog 0", .args = {"--frag-backlog", "0"}},
        {.name = "backlog 1001", .args = {"--frag-backlog", "1001"}},
        {.name = "backlog -10", .args = {"--frag-backlog", "-10"}},
    });
}

TEST(CommandLine, MissingValuesFailSilently)
{
    for (const char* option :
         {"--frag-duration", "--frag-backlog", "--frag-name", "--m3u8-name", "--base-url"}) {
        SCOPED_TRACE(option);
        EXPECT_TRUE(same_run(run_on({}, {option}), {.ending = "exit 1"}));
    }
}

TEST(CommandLine, NamesThatCouldEscapeTheDirectoryFailSilently)
{
    for (const char* option : {"--frag-name", "--m3u8-name"}) {
        for (const char* name : {"", "/x", "x/", "/", "..", "../x", "a/../x", "x..y"}) {
            SCOPED_TRACE(std::string(option) + " '" + name + "'");
            EXPECT_TRUE(same_run(run_on({}, {option, name}), {.ending = "exit 1"}));
        }
    }
}

TEST(CommandLine, ABaseUrlMustEndInASlash)
{
    expect_status_1({
        {.name = "no slash", .args = {"--base-url", "http://h/x"}},
        {.name = "a slash", .args = {"--base-url", "http://h/x/"}, .want_error = accepted},
        {.name = "a slash alone", .args = {"--base-url", "/"}, .want_error = accepted},
        {.name = "empty", .args = {"--base-url", ""}, .want_error = accepted},
    });
}

TEST(CommandLine, GoodOptionsAreAccepted)
{
    expect_status_1({
        {.name = "none", .args = {}, .want_error = accepted},
        {.name = "durations", .args = {"--frag-duration", "1"}, .want_error = accepted},
        {.name = "longest duration", .args = {"--frag-duration", "20"}, .want_error = accepted},
        {.name = "trailing characters", .args = {"--frag-duration", "5s"}, .want_error = accepted},
        {.name = "smallest backlog", .args = {"--frag-backlog", "1"}, .want_error = accepted},
        {.name = "largest backlog", .args = {"--frag-backlog", "1000"}, .want_error = accepted},
        {.name = "a playlist in a directory",
         .args = {"--m3u8-name", "sub/x.m3u8"},
         .want_error = accepted},
        {.name = "a value that looks like an option",
         .args = {"--frag-name", "--sap"},
         .want_error = accepted},
        {.name = "one dash", .args = {"-sap"}, .want_error = accepted},
        {.name = "all switches but the streams",
         .args = {"--sap", "--no-multilevel", "--pat-nit-not-first", "--start-pat-pmt",
                  "--no-padding"},
         .want_error = accepted},
    });
}

TEST(CommandLine, SeparateStreamsImplyOtherOptions)
{
    expect_status_1({
        {.name = "alone",
         .args = {"--separate-streams"},
         .want_error = "Separate streams REQUIRES --start-pat-pmt option\n" + accepted},
        {.name = "with the tables",
         .args = {"--separate-streams", "--start-pat-pmt"},
         .want_error = accepted},
        {.name = "without multilevel",
         .args = {"--no-multilevel", "--separate-streams"},
         .want_error = both_streams_warnings + accepted},
        {.name = "a rejected name is silent", .args = {"--separate-streams", "--frag-name", ".."}},
    });
}

TEST(CommandLine, AnonSockAsTheLastArgumentEndsTheParsingUnchecked)
{
    expect_status_1({
        {.name = "alone", .args = {"--anon-sock"}, .want_error = accepted},
        {.name = "behind a bad name",
         .args = {"--m3u8-name", "/bad", "--anon-sock"},
         .want_error = accepted},
        {.name = "behind separate streams",
         .args = {"--separate-streams", "--anon-sock"},
         .want_error = accepted},
        {.name = "behind a bad number", .args = {"--frag-duration", "0", "--anon-sock"}},
        {.name = "a bad name with a value for it",
         .args = {"--m3u8-name", "/bad", "--anon-sock", "-1"}},
    });
}

TEST(CommandLine, ANegativeAnonSockMeansNone)
{
    EXPECT_TRUE(same_run(run_on({}, {"--anon-sock", "-7"}),
                         {.ending = "exit 1", .standard_error = accepted}));
}

TEST(CommandLine, AnAnonSockThatIsNoSocketEndsTheRunWithoutAWord)
{
    for (const char* number : {"99", "0", "1", "x"}) {
        SCOPED_TRACE(number);
        EXPECT_TRUE(same_run(run_on({}, {"--anon-sock", number}), {.ending = "exit 0"}));
    }
}

} // namespace
