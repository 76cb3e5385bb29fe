#include "v2/options.hpp"

#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace
{

struct parsed {
    bool ok;
    cmdopts opts;
    int32_t sock; // what --anon-sock left
    std::string error;
};

parsed parse(std::vector<std::string> args)
{
    args.insert(args.begin(), "program");
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());

    anon_sock_fd = -1;
    parsed got{};
    testing::internal::CaptureStderr();
    got.ok = parse_options(got.opts, static_cast<int>(argv.size()), argv.data());
    got.error = testing::internal::GetCapturedStderr();
    got.sock = anon_sock_fd;
    anon_sock_fd = -1;
    return got;
}

TEST(Options, DefaultsHoldWithoutArguments)
{
    for (const int argc : {0, 1}) {
        SCOPED_TRACE(argc);
        std::string program = "program";
        char* argv[] = {program.data(), nullptr};
        cmdopts opts;
        EXPECT_TRUE(parse_options(opts, argc, argv));
        EXPECT_EQ(opts.frag_duration, 4);
        EXPECT_EQ(opts.frag_backlog, 10);
        EXPECT_EQ(opts.m3u8_name, "ch1.m3u8");
        EXPECT_EQ(opts.frag_name, "ch1");
        EXPECT_EQ(opts.base_url, "");
        EXPECT_EQ(anon_sock_fd, -1);
    }
}

TEST(Options, ValuesAreStored)
{
    const parsed got =
        parse({"--frag-duration", "20", "-frag-backlog", "1000", "--m3u8-name", "a/b.m3u8",
               "---frag-name", "c", "--base-url", "http://h/", "--anon-sock", "7"});
    EXPECT_TRUE(got.ok);
    EXPECT_EQ(got.opts.frag_duration, 20);
    EXPECT_EQ(got.opts.frag_backlog, 1000);
    EXPECT_EQ(got.opts.m3u8_name, "a/b.m3u8");
    EXPECT_EQ(got.opts.frag_name, "c");
    EXPECT_EQ(got.opts.base_url, "http://h/");
    EXPECT_EQ(got.sock, 7);
    EXPECT_EQ(got.error, "");
}

TEST(Options, TheLastOfTwoValuesCounts)
{
    const parsed got = parse({"--frag-duration", "5", "--frag-duration", "6"});
    EXPECT_TRUE(got.ok);
    EXPECT_EQ(got.opts.frag_duration, 6);
}

struct flag_case {
    std::string_view name;
    bool cmdopts::*flag;
};

TEST(Options, EachSwitchSetsItsFlagAlone)
{
    const flag_case cases[] = {
        {.name = "sap", .flag = &cmdopts::sap},
        {.name = "no-multilevel", .flag = &cmdopts::no_multilevel},
        {.name = "pat-nit-not-first", .flag = &cmdopts::pat_nit_not_first},
        {.name = "start-pat-pmt", .flag = &cmdopts::start_pat_pmt},
        {.name = "no-padding", .flag = &cmdopts::no_padding},
        {.name = "clear-old", .flag = &cmdopts::clear_old},
    };
    for (const flag_case& given : cases) {
        const parsed got = parse({"--" + std::string(given.name)});
        EXPECT_TRUE(got.ok);
        for (const flag_case& other : cases)
            EXPECT_EQ(got.opts.*other.flag, given.flag == other.flag)
                << other.name << " with --" << given.name;
        EXPECT_FALSE(got.opts.separate_streams);
        EXPECT_FALSE(got.opts.clear_old_only);
    }
}

TEST(Options, ClearOldOnlyClearsToo)
{
    const parsed got = parse({"--clear-old-only"});
    EXPECT_TRUE(got.opts.clear_old);
    EXPECT_TRUE(got.opts.clear_old_only);
}

TEST(Options, SeparateStreamsForceTablesAndMultilevel)
{
    const parsed got = parse({"--separate-streams", "--no-multilevel"});
    EXPECT_TRUE(got.ok);
    EXPECT_TRUE(got.opts.separate_streams);
    EXPECT_TRUE(got.opts.start_pat_pmt);
    EXPECT_FALSE(got.opts.no_multilevel);
}

// A parent that passes --anon-sock without its value gets what stood before it, unchecked.
TEST(Options, AnonSockAtTheEndKeepsTheOptionsAsTheyAre)
{
    const parsed got =
        parse({"--separate-streams", "--no-multilevel", "--base-url", "x", "--anon-sock"});
    EXPECT_TRUE(got.ok);
    EXPECT_TRUE(got.opts.no_multilevel);
    EXPECT_FALSE(got.opts.start_pat_pmt);
    EXPECT_EQ(got.opts.base_url, "x");
    EXPECT_EQ(got.sock, -1);
    EXPECT_EQ(got.error, "");
}

struct judged_case {
    std::vector<std::string> args;
    std::string want_error = {};
};

void expect_judged(bool want_ok, const std::vector<judged_case>& cases)
{
    for (const judged_case& c : cases) {
        const parsed got = parse(c.args);
        EXPECT_EQ(got.ok, want_ok) << testing::PrintToString(c.args);
        EXPECT_EQ(got.error, c.want_error) << testing::PrintToString(c.args);
    }
}

TEST(Options, RefusesWhatItDoesNotKnow)
{
    expect_judged(false, {
                             {{"--hel"}, "Unknown switch 'hel'\n"},
                             {{"--helper"}, "Unknown switch 'helper'\n"},
                             {{"-"}, "Unknown switch ''\n"},
                             {{"--"}, "Unknown switch ''\n"},
                             {{"--frag-duration=5"}, "Unknown switch 'frag-duration=5'\n"},
                             {{"--SAP"}, "Unknown switch 'SAP'\n"},
                             {{"--sap", "---x-y"}, "Unknown switch 'x-y'\n"},
                             {{"help"}, "Unexpected arg\n"},
                             {{""}, "Unexpected arg\n"},
                             {{"--frag-duration", "5", "6"}, "Unexpected arg\n"},
                         });
}

TEST(Options, RefusesBadValuesWithoutAWord)
{
    expect_judged(false, {
                             {{"--frag-duration", "0"}},
                             {{"--frag-duration", "21"}},
                             {{"--frag-duration", "-1"}},
                             {{"--frag-duration", "x"}},
                             {{"--frag-duration", ""}},
                             {{"--frag-duration", "0", "--help"}},
                             {{"--frag-duration", "0", "--anon-sock"}},
                             {{"--frag-backlog", "0"}},
                             {{"--frag-backlog", "1001"}},
                             {{"--frag-backlog", "-10"}},
                             {{"--base-url", "http://h/x"}},
                             {{"--separate-streams", "--frag-name", ".."}},
                             {{"--m3u8-name", "/bad", "--anon-sock", "-1"}},
                         });
    for (const char* option :
         {"--frag-duration", "--frag-backlog", "--frag-name", "--m3u8-name", "--base-url"})
        expect_judged(false, {{{option}}});
    for (const char* option : {"--frag-name", "--m3u8-name"})
        for (const char* name : {"", "/x", "x/", "/", "..", "../x", "a/../x", "x..y"})
            expect_judged(false, {{{option, name}}});
}

TEST(Options, AcceptsGoodOnes)
{
    expect_judged(true, {
                            {{"--frag-duration", "1"}},
                            {{"--frag-duration", "20"}},
                            {{"--frag-backlog", "1"}},
                            {{"--frag-backlog", "1000"}},
                            {{"--base-url", "http://h/x/"}},
                            {{"--base-url", "/"}},
                            {{"--base-url", ""}},
                            {{"--m3u8-name", "sub/x.m3u8"}},
                            {{"--frag-name", "--sap"}},
                            {{"-sap"}},
                            {{"--anon-sock", "-7"}},
                            {{"--m3u8-name", "/bad", "--anon-sock"}},
                        });
}

TEST(Options, SeparateStreamsWarnOfWhatTheyForce)
{
    const std::string tables = "Separate streams REQUIRES --start-pat-pmt option\n";
    expect_judged(true,
                  {
                      {{"--separate-streams"}, tables},
                      {{"--separate-streams", "--start-pat-pmt"}},
                      {{"--no-multilevel", "--separate-streams"},
                       "Separate streams AND no multilevel are incompatible options!\n" + tables},
                      {{"--separate-streams", "--anon-sock"}},
                  });
}

struct number_case {
    std::string_view name;
    std::string text;
    bool want_ok;
    int32_t want;
};

TEST(Options, NumbersAreReadAsFarAsTheyGoAndStoredBeforeTheCheck)
{
    const number_case cases[] = {
        {.name = "trailing characters", .text = "5s", .want_ok = true, .want = 5},
        {.name = "leading blanks", .text = "  +7", .want_ok = true, .want = 7},
        {.name = "leading zeros", .text = "007", .want_ok = true, .want = 7},
        {.name = "no digits", .text = "x", .want_ok = false, .want = 0},
        {.name = "hexadecimal", .text = "0x10", .want_ok = false, .want = 0},
        {.name = "too large", .text = "21", .want_ok = false, .want = 21},
        {.name = "negative", .text = "-3", .want_ok = false, .want = -3},
        {.name = "cut to 32 bits", .text = "4294967301", .want_ok = true, .want = 5},
    };
    for (const number_case& c : cases) {
        SCOPED_TRACE(c.name);
        const parsed got = parse({"--frag-duration", c.text});
        EXPECT_EQ(got.ok, c.want_ok);
        EXPECT_EQ(got.opts.frag_duration, c.want);
        EXPECT_EQ(got.error, "");
    }
}

} // namespace
