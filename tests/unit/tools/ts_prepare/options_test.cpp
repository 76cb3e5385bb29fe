#include "tools/ts_prepare/options.hpp"

#include <vector>

#include <gtest/gtest.h>

namespace
{

bool parse(std::vector<std::string> words, prepare_options& options, std::string& error)
{
    words.insert(words.begin(), "vorn_ts_prepare");
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parse_prepare_options(static_cast<int>(words.size()), argv.data(), options, error);
}

TEST(PrepareOptions, Defaults)
{
    prepare_options options;
    std::string error;
    ASSERT_TRUE(parse({}, options, error)) << error;
    EXPECT_EQ(options.pad_to, 40'000'000);
    EXPECT_FALSE(options.pad_always);
    EXPECT_EQ(options.programme, std::nullopt);
    EXPECT_FALSE(options.drop_service_information);
    EXPECT_EQ(options.table_us, 500'000);
    EXPECT_EQ(options.table_bytes, 250'000U);
    EXPECT_FALSE(options.keep_time);
    EXPECT_EQ(options.linger_us, 0);
    EXPECT_EQ(options.stats_us, 0);
    EXPECT_FALSE(options.describe);
    EXPECT_EQ(options.frag_duration, 4);
    EXPECT_FALSE(options.help);
}

TEST(PrepareOptions, AllOfThem)
{
    prepare_options options;
    std::string error;
    ASSERT_TRUE(parse({"--pad-to", "7.5M", "--programme=0x1F", "--drop-si", "--table-interval",
                       "100", "--table-bytes", "50000", "--keep-time", "--linger", "2.5", "--stats",
                       "10", "--describe", "--json", "--frag-duration", "6"},
                      options, error))
        << error;
    EXPECT_EQ(options.pad_to, 7'500'000);
    EXPECT_TRUE(options.pad_always);
    EXPECT_EQ(options.programme, 0x1F);
    EXPECT_TRUE(options.drop_service_information);
    EXPECT_EQ(options.table_us, 100'000);
    EXPECT_EQ(options.table_bytes, 50'000U);
    EXPECT_TRUE(options.keep_time);
    EXPECT_EQ(options.linger_us, 2'500'000);
    EXPECT_EQ(options.stats_us, 10'000'000);
    EXPECT_TRUE(options.describe);
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.frag_duration, 6);
}

TEST(PrepareOptions, Rates)
{
    struct test_case {
        const char* text;
        int64_t want;
    };
    constexpr test_case cases[] = {
        {"0", 0},
        {"1M", 1'000'000},
        {"2500k", 2'500'000},
        {"1000000", 1'000'000},
        {"1000M", 1'000'000'000},
    };
    for (const test_case& c : cases) {
        SCOPED_TRACE(c.text);
        prepare_options options;
        std::string error;
        ASSERT_TRUE(parse({"--pad-to", c.text}, options, error)) << error;
        EXPECT_EQ(options.pad_to, c.want);
    }
}

TEST(PrepareOptions, TheDefaultOfPaddingHasAName)
{
    prepare_options options;
    std::string error;
    ASSERT_TRUE(parse({"--pad-to", "9M", "--pad-to=auto"}, options, error)) << error;
    EXPECT_EQ(options.pad_to, 40'000'000);
    EXPECT_FALSE(options.pad_always);
}

TEST(PrepareOptions, RefusesWhatItCannotUse)
{
    struct test_case {
        std::vector<std::string> words;
        const char* error;
    };
    const char* const pad_to = "--pad-to needs a rate from 1M to 1000M, 0 or auto";
    const char* const programme = "--programme needs a number from 1 to 65535";
    const char* const interval = "--table-interval needs milliseconds from 20 to 10000";
    const char* const bytes = "--table-bytes needs bytes from 10000 to 100000000";
    const test_case cases[] = {
        {{"--pad-to", "999k"}, pad_to},
        {{"--pad-to", "1001M"}, pad_to},
        {{"--pad-to", "-1M"}, pad_to},
        {{"--pad-to", "nan"}, pad_to},
        {{"--pad-to", "M"}, pad_to},
        {{"--pad-to", "autoM"}, pad_to},
        {{"--pad-to", "40MB"}, pad_to},
        {{"--programme", "0"}, programme},
        {{"--service-id", "65536"}, programme},
        {{"--programme", "1x"}, programme},
        {{"--table-interval", "19"}, interval},
        {{"--table-interval", "10001"}, interval},
        {{"--table-bytes", "9999"}, bytes},
        {{"--table-bytes", "100000001"}, bytes},
        {{"--linger", "-1"}, "--linger needs seconds from 0 to 86400"},
        {{"--linger", "86401"}, "--linger needs seconds from 0 to 86400"},
        {{"--stats", "0"}, "--stats needs seconds from 0.1 to 86400"},
        {{"--frag-duration", "0"}, "--frag-duration needs seconds from 1 to 20"},
        {{"--frag-duration", "21"}, "--frag-duration needs seconds from 1 to 20"},
        {{"--json"}, "--json needs --describe"},
        {{"--drop-si"}, "--drop-si needs --programme"},
        {{"file.ts"}, "'file.ts' is no option"},
        {{"--pad-to"}, "'--pad-to' is unknown or lacks its value"},
        {{"--nonsense"}, "'--nonsense' is unknown or lacks its value"},
    };
    for (const test_case& c : cases) {
        SCOPED_TRACE(c.words.front() + (c.words.size() > 1 ? " " + c.words[1] : ""));
        prepare_options options;
        std::string error;
        EXPECT_FALSE(parse(c.words, options, error));
        EXPECT_EQ(error, c.error);
    }
}

} // namespace
