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

TEST(CommandLine, HelpPrintsTheUsageAndEndsTheParsing)
{
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"-h"},
                                                      {"--h"},
                                                      {"--help"},
                                                      {"-help"},
                                                      {"----help"},
                                                      {"--sap", "--help", "bad"}})
        EXPECT_TRUE(same_run(run_on({}, arguments),
                             {.ending = "exit 1", .standard_error = std::string(usage)}));
}

TEST(CommandLine, RefusedOptionsEndTheRunWithStatus1)
{
    EXPECT_TRUE(same_run(run_on({}, {"--frag-duration", "0"}), {.ending = "exit 1"}));
    EXPECT_TRUE(same_run(run_on({}, {"--hel"}),
                         {.ending = "exit 1", .standard_error = "Unknown switch 'hel'\n"}));
    EXPECT_TRUE(same_run(run_on({}, {"--frag-duration", "20", "--anon-sock", "-7"}),
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
