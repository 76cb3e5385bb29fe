#include "tools/caption_feed/options.hpp"

#include <gtest/gtest.h>

#include "tools/captions/teletext_decoder.hpp"

namespace
{

bool parse(std::vector<std::string> words, feed_options& options, std::string& error)
{
    words.insert(words.begin(), "vorn_caption_feed");
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parse_feed_options(static_cast<int>(words.size()), argv.data(), options, error);
}

TEST(CaptionFeedOptions, AllOfThem)
{
    feed_options options;
    std::string error;
    ASSERT_TRUE(
        parse({"--captions", "eng=a=b.vtt", "--captions=spa=|gen --x", "--base-time", "900000",
               "--pace", "realtime", "--lead", "-0.25", "--", "program", "--pace", "x"},
              options, error))
        << error;
    ASSERT_EQ(options.captions.size(), 2U);
    EXPECT_EQ(options.captions[0].language, "eng");
    EXPECT_EQ(options.captions[0].source, "a=b.vtt");
    EXPECT_EQ(options.captions[1].language, "spa");
    EXPECT_EQ(options.captions[1].source, "|gen --x");
    EXPECT_EQ(options.base_ticks, 900000U);
    EXPECT_EQ(options.pace, feed_pace::realtime);
    EXPECT_EQ(options.lead_ms, -250);
    EXPECT_EQ(options.command, (std::vector<std::string>{"program", "--pace", "x"}));
}

TEST(CaptionFeedOptions, Defaults)
{
    feed_options options;
    std::string error;
    ASSERT_TRUE(parse({"--captions", "v1=x", "program", "--help"}, options, error));
    EXPECT_EQ(options.base_ticks, std::nullopt);
    EXPECT_EQ(options.pace, feed_pace::automatic);
    EXPECT_EQ(options.lead_ms, 1000);
    EXPECT_FALSE(options.help);
    EXPECT_EQ(options.command, (std::vector<std::string>{"program", "--help"}));
}

TEST(CaptionFeedOptions, ServicesOfTheStreamItself)
{
    feed_options options;
    std::string error;
    if (!teletext_is_built_in) {
        EXPECT_FALSE(parse({"--captions", "deu=teletext:150", "p"}, options, error));
        EXPECT_EQ(error,
                  "--captions: this program was built without libzvbi, which reads teletext");
        GTEST_SKIP() << "built without libzvbi";
    }
    ASSERT_TRUE(parse({"--captions", "eng=cc1", "--captions", "spa=708:2", "--captions",
                       "deu=teletext:150", "--captions", "auto", "--captions", "fra=./cc1", "p"},
                      options, error))
        << error;
    EXPECT_EQ(options.services,
              (std::vector<caption_service>{{caption_kind::cea608, 1, "eng"},
                                            {caption_kind::cea708, 2, "spa"},
                                            {caption_kind::teletext, 0x150, "deu"}}));
    EXPECT_TRUE(options.all_services);
    ASSERT_EQ(options.captions.size(), 1U);
    EXPECT_EQ(options.captions[0].source, "./cc1");

    options = {};
    EXPECT_TRUE(parse({"--captions", "auto", "p"}, options, error));
    EXPECT_TRUE(options.services.empty());
    EXPECT_FALSE(parse({"--captions", "eng=x.vtt", "--captions", "eng=cc1", "p"}, options, error));
    EXPECT_EQ(error, "--captions: a second source for 'eng'");
}

TEST(CaptionFeedOptions, Help)
{
    feed_options options;
    std::string error;
    EXPECT_TRUE(parse({"--help"}, options, error));
    EXPECT_TRUE(options.help);
    for (const char* option : {"--captions", "--base-time", "--pace", "--lead", "--help"})
        EXPECT_NE(std::string(feed_usage).find(option), std::string::npos);
}

struct refused_case {
    std::string_view name;
    std::vector<std::string> words;
    std::string_view want;
};

TEST(CaptionFeedOptions, Refused)
{
    const refused_case cases[] = {
        {.name = "nothing", .words = {}, .want = "no captions are given"},
        {.name = "no captions", .words = {"p"}, .want = "no captions are given"},
        {.name = "no command", .words = {"--captions", "eng=x"}, .want = "no command is given"},
        {.name = "no command behind --",
         .words = {"--captions", "eng=x", "--"},
         .want = "no command is given"},
        {.name = "no source",
         .words = {"--captions", "eng", "p"},
         .want = "--captions needs LANG=SOURCE, or auto"},
        {.name = "empty source",
         .words = {"--captions", "eng=", "p"},
         .want = "--captions needs LANG=SOURCE, or auto"},
        {.name = "empty command",
         .words = {"--captions", "eng=|", "p"},
         .want = "--captions needs LANG=SOURCE, or auto"},
        {.name = "no language",
         .words = {"--captions", "=x", "p"},
         .want = "--captions: '' is no language (letters, digits and '-')"},
        {.name = "path as language",
         .words = {"--captions", "../a=x", "p"},
         .want = "--captions: '../a' is no language (letters, digits and '-')"},
        {.name = "language twice",
         .words = {"--captions", "eng=x", "--captions", "eng=y", "p"},
         .want = "--captions: a second source for 'eng'"},
        {.name = "negative time",
         .words = {"--base-time", "-1", "p"},
         .want = "--base-time needs a number of ticks, 0 or more"},
        {.name = "time with a unit",
         .words = {"--base-time", "10s", "p"},
         .want = "--base-time needs a number of ticks, 0 or more"},
        {.name = "unknown pace",
         .words = {"--pace", "fast", "p"},
         .want = "--pace needs auto, realtime or none"},
        {.name = "no lead",
         .words = {"--lead", "", "p"},
         .want = "--lead needs seconds, at most a day"},
        {.name = "lead that is no number",
         .words = {"--lead", "nan", "p"},
         .want = "--lead needs seconds, at most a day"},
        {.name = "lead of two days",
         .words = {"--lead", "172800", "p"},
         .want = "--lead needs seconds, at most a day"},
        {.name = "unknown option",
         .words = {"--speed", "1", "p"},
         .want = "'--speed' is unknown or lacks its value"},
        {.name = "one dash",
         .words = {"-captions", "eng=x", "p"},
         .want = "'-captions' is unknown or lacks its value"},
        {.name = "missing value",
         .words = {"--captions"},
         .want = "'--captions' is unknown or lacks its value"},
    };
    for (const refused_case& c : cases) {
        SCOPED_TRACE(c.name);
        feed_options options;
        std::string error;
        EXPECT_FALSE(parse(c.words, options, error));
        EXPECT_EQ(error, c.want);
    }
}

TEST(CaptionFeedOptions, AsManyLanguagesAsServices)
{
    std::vector<std::string> words;
    words.reserve(258);
    for (int i = 0; i < 256; ++i)
        words.push_back("--captions=v" + std::to_string(i) + "=x");
    words.push_back("p");
    feed_options options;
    std::string error;
    EXPECT_TRUE(parse(words, options, error));

    words.insert(words.begin(), "--captions=eng=x");
    options = {};
    EXPECT_FALSE(parse(words, options, error));
    EXPECT_EQ(error, "--captions: more than 256 languages");
}

} // namespace
