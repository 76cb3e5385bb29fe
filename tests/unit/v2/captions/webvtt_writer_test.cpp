#include "v2/captions/webvtt_writer.hpp"

#include <filesystem>
#include <string_view>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "tests/support/bundle_run.hpp"
#include "v2/hls/cut.hpp"

namespace
{

namespace fs = std::filesystem;

constexpr int64_t ticks(int64_t milliseconds)
{
    return milliseconds * 90;
}

// Real outputs, cut at the milliseconds the tests say. Fragments are due after 4 s.
struct writer_run : bundle_run {
    using bundle_run::bundle_run;

    // The first open fragments begin at 10 s.
    void start() { cut(10000); }

    std::string cut(int64_t at_ms)
    {
        return stderr_of([&] { video_cut(ticks(at_ms), true, pm, bundle, opts); });
    }

    std::string emit()
    {
        return stderr_of([&] {
            io_proc_emit_vtt(pm.last_video_pts, pm.cut_window_start,
                             pm.cut_window_end + ticks(3000), pm.frag_start_pts, bundle);
        });
    }

    static vtt_cue cue_at(int64_t at_ms, const std::string& text)
    {
        vtt_cue cue;
        cue.mpeg_timestamp = static_cast<uint64_t>(ticks(at_ms));
        cue.start = at_ms;
        cue.end = at_ms + 1000;
        cue.now = at_ms;
        cue.text = text;
        return cue;
    }

    // One second long, its end known.
    static void queue_cue(const std::string& key, int64_t at_ms, const std::string& text)
    {
        vtt_queues[key].push_back(cue_at(at_ms, text));
    }

    static void queue_open_cue(const std::string& key, int64_t at_ms, const std::string& text)
    {
        queue_cue(key, at_ms, text);
        vtt_queues[key].back().now = -1;
    }

    static std::string text_of(const std::string& file)
    {
        if (!fs::exists(file))
            return "no such file";
        const byte_string bytes = read_file(file);
        return {bytes.begin(), bytes.end()};
    }

    // The files of WebVTT renditions, fragments and playlists.
    [[nodiscard]] std::vector<std::string> vtt_files() const
    {
        std::vector<std::string> names;
        for (const auto& [name, content] : directory.files())
            if (name.find("vtt") != std::string::npos)
                names.push_back(name);
        return names;
    }
};

class WebvttWriter : public testing::Test, protected writer_run
{
};

using names_list = std::vector<std::string>;

const std::string nameless_lines =
    "M3U8 warning: Fragment name is missing for segment 0 '' (FIX THIS BUG)\n"
    "M3U8 warning: Fragment name is missing for segment 0 '' (FIX THIS BUG)\n";

const std::string header_at_10_s = "WEBVTT\n"
                                   "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n"
                                   "Kind: captions\n"
                                   "Language: eng\n"
                                   "\n";

TEST_F(WebvttWriter, WritesTheHeaderAndTheCueOfANewLanguage)
{
    start();
    queue_cue("eng", 11000, "Hello\nworld");
    vtt_queues["eng"].back().cue_settings = "line:0";
    bundle.master_out.master_dirty = false;
    EXPECT_EQ(emit(), "");

    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s +
                                                      "0:00:11.000 --> 0:00:12.000 line:0\n"
                                                      "Hello\n"
                                                      "world\n"
                                                      "\n");
    EXPECT_TRUE(vtt_queues["eng"].empty());
    EXPECT_TRUE(bundle.master_out.master_dirty);
    // Its playlist comes with the first cut.
    EXPECT_EQ(vtt_files(), names_list({"ch1.00000000.ts.eng.vtt"}));
}

TEST_F(WebvttWriter, DoesNothingBeforeTheMainRenditionHasAFragmentOpen)
{
    queue_cue("eng", 11000, "early");
    EXPECT_EQ(emit(), "");
    EXPECT_TRUE(vtt_outputs.empty());
    EXPECT_EQ(vtt_queues["eng"].size(), 1u);
    EXPECT_EQ(vtt_files(), names_list());

    cut(10000);
    emit();
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s + "0:00:11.000 --> 0:00:12.000\n"
                                                                   "early\n"
                                                                   "\n");
}

TEST_F(WebvttWriter, DoesNothingWithoutALanguage)
{
    start();
    bundle.master_out.master_dirty = false;
    EXPECT_EQ(emit(), "");
    EXPECT_TRUE(vtt_outputs.empty());
    EXPECT_FALSE(bundle.master_out.master_dirty);
    EXPECT_EQ(vtt_files(), names_list());
}

TEST(WebvttWriterOptions, NothingIsWrittenWithoutAMultilevelPresentation)
{
    cmdopts opts;
    opts.no_multilevel = true;
    writer_run run(opts);
    run.start();
    writer_run::queue_cue("eng", 11000, "unseen");
    EXPECT_EQ(run.emit(), "");
    EXPECT_TRUE(vtt_outputs.empty());
    EXPECT_EQ(vtt_queues["eng"].size(), 1u);
    EXPECT_EQ(run.vtt_files(), names_list());
}

TEST(WebvttWriterOptions, ARenditionIsNamedAfterTheMainOneAndSharesItsSettings)
{
    cmdopts opts;
    opts.separate_streams = true;
    opts.m3u8_name = "tv.m3u8";
    opts.frag_name = "tv";
    opts.base_url = "http://host/";
    opts.frag_backlog = 6;
    opts.frag_duration = 3;
    writer_run run(opts);
    run.start();
    writer_run::queue_cue("eng", 11000, "Hi");
    run.emit();
    ASSERT_TRUE(vtt_outputs.contains("eng"));
    const HLSoutput& output = vtt_outputs.at("eng");
    EXPECT_EQ(output.frag_path, "tv.v.00000000.ts.eng.vtt");
    EXPECT_EQ(output.m3u8.file_name, "tv.m3u8.v.m3u8.eng.vtt.m3u8");
    EXPECT_EQ(output.base_url, "http://host/");
    EXPECT_EQ(output.m3u8.list_size, 6u);
    EXPECT_EQ(output.m3u8.nolist_count, 3u);
    EXPECT_EQ(output.m3u8.target_duration, 3u);
    EXPECT_FALSE(output.carries_ts);
}

TEST_F(WebvttWriter, WritesOneHeaderAFragment)
{
    start();
    queue_cue("eng", 11000, "one");
    emit();
    queue_cue("eng", 13000, "two");
    queue_cue("eng", 15000, "three");
    emit();
    emit();
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s + "0:00:11.000 --> 0:00:12.000\n"
                                                                   "one\n"
                                                                   "\n"
                                                                   "0:00:13.000 --> 0:00:14.000\n"
                                                                   "two\n"
                                                                   "\n"
                                                                   "0:00:15.000 --> 0:00:16.000\n"
                                                                   "three\n"
                                                                   "\n");
    EXPECT_EQ(vtt_outputs.at("eng").ref_pts, ticks(10000));
    EXPECT_EQ(vtt_outputs.at("eng").last_end_ms, 16000);
}

TEST_F(WebvttWriter, KeepsAnOpenCueUntilAnotherStandsBehindIt)
{
    start();
    queue_open_cue("eng", 11000, "open");
    emit();
    emit();
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s);
    EXPECT_EQ(vtt_queues["eng"].size(), 1u);
    EXPECT_EQ(vtt_outputs.at("eng").last_end_ms, -1);

    queue_open_cue("eng", 11500, "next");
    emit();
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s + "0:00:11.000 --> 0:00:11.500\n"
                                                                   "open\n"
                                                                   "\n");
    EXPECT_EQ(vtt_queues["eng"].size(), 1u);
}

TEST_F(WebvttWriter, AnOpenCueThatWaitedGoesIntoTheNextFragment)
{
    start();
    queue_open_cue("eng", 15000, "open");
    emit();
    // The fragment holds its header, so it is not one that never got any events.
    EXPECT_EQ(cut(16000), nameless_lines);
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s);

    queue_cue("eng", 16200, "known");
    emit();
    EXPECT_EQ(text_of("ch1.00000001.ts.eng.vtt"),
              "WEBVTT\n"
              "X-TIMESTAMP-MAP=MPEGTS:1440000,LOCAL:0:00:16.000\n"
              "Kind: captions\n"
              "Language: eng\n"
              "\n"
              "0:00:15.000 --> 0:00:16.000\n"
              "open\n"
              "\n"
              "0:00:16.200 --> 0:00:17.200\n"
              "known\n"
              "\n");
}

// The window's end is 14 s, and cues have 3 s more.
TEST_F(WebvttWriter, WritesAnOpenCueAtTheEndOfTheWindowAndItsSlack)
{
    start();
    queue_open_cue("eng", 16999, "before");
    emit();
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s);

    vtt_queues["eng"].clear();
    queue_open_cue("eng", 17000, "at");
    emit();
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s + "0:00:17.000 --> 0:00:18.000\n"
                                                                   "at\n"
                                                                   "\n");
}

TEST_F(WebvttWriter, PlacesCuesBehindThoseOfTheFragmentBefore)
{
    start();
    queue_cue("eng", 15500, "one"); // ends at 16.5 s
    emit();
    cut(16000);
    queue_cue("eng", 16000, "two");
    emit();
    EXPECT_TRUE(text_of("ch1.00000001.ts.eng.vtt")
                    .ends_with("\n"
                               "0:00:16.500 --> 0:00:17.250\n"
                               "two\n"
                               "\n"));
}

TEST_F(WebvttWriter, ForgetsTheEndOfTheLastCueWhenTheClockWentBack)
{
    start();
    cut(16000);
    queue_cue("eng", 17000, "before");
    emit();
    cut(12000);
    queue_cue("eng", 12500, "after");
    emit();
    EXPECT_EQ(text_of("ch1.00000002.ts.eng.vtt"),
              "WEBVTT\n"
              "X-TIMESTAMP-MAP=MPEGTS:1080000,LOCAL:0:00:12.000\n"
              "Kind: captions\n"
              "Language: eng\n"
              "\n"
              "0:00:12.500 --> 0:00:13.500\n"
              "after\n"
              "\n");
    EXPECT_EQ(vtt_outputs.at("eng").last_end_ms, 13500);
}

TEST_F(WebvttWriter, ReportsATimeStampFarFromTheFragmentsOrigin)
{
    start();
    queue_cue("eng", 700000, "far");
    EXPECT_EQ(emit(), "Timestamp mismatch 8652934592 900000\n");
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s + "0:00:10.000 --> 0:00:11.000\n"
                                                                   "far\n"
                                                                   "\n");
}

TEST_F(WebvttWriter, TakesLanguagesInTheOrderOfTheirBytes)
{
    start();
    for (const char* key : {"v0", "eng", "Eng", "\xC3\xA9", "en"})
        queue_cue(key, 700000, key); // each far, so that each is reported
    for (const char* key : {"v0", "eng", "Eng", "\xC3\xA9", "en"})
        create_vtt_output(bundle, key).next_seq = 7;
    const std::string far = "Timestamp mismatch 8652934592 900000\n";
    EXPECT_EQ(emit(), far + "VTT lang 'Eng' fragment mismatch: ts=0 vtt=7 (BUG!)\n" + far +
                          "VTT lang 'en' fragment mismatch: ts=0 vtt=7 (BUG!)\n" + far +
                          "VTT lang 'eng' fragment mismatch: ts=0 vtt=7 (BUG!)\n" + far +
                          "VTT lang 'v0' fragment mismatch: ts=0 vtt=7 (BUG!)\n" + far +
                          "VTT lang '\xC3\xA9' fragment mismatch: ts=0 vtt=7 (BUG!)\n");
}

TEST_F(WebvttWriter, ANewLanguageTakesTheNumberOfTheOpenMainFragment)
{
    start();
    queue_cue("eng", 11000, "one");
    emit();
    cut(16000);
    cut(22000);
    queue_cue("spa", 23000, "uno");
    EXPECT_EQ(emit(), "");
    EXPECT_EQ(vtt_outputs.at("eng").frag_path, "ch1.00000002.ts.eng.vtt");
    EXPECT_EQ(vtt_outputs.at("spa").frag_path, "ch1.00000002.ts.spa.vtt");
    cut(28000);
    EXPECT_EQ(text_of("ch1.m3u8.av.m3u8.spa.vtt.m3u8"), "#EXTM3U\n"
                                                        "#EXT-X-VERSION:4\n"
                                                        "#EXT-X-TARGETDURATION:4\n"
                                                        "#EXT-X-MEDIA-SEQUENCE:2\n"
                                                        "\n"
                                                        "#EXTINF:6.000,\n"
                                                        "ch1.00000002.ts.spa.vtt\n"
                                                        "\n");
    EXPECT_EQ(vtt_outputs.at("eng").frag_path, "ch1.00000003.ts.eng.vtt");
    EXPECT_EQ(vtt_outputs.at("spa").frag_path, "ch1.00000003.ts.spa.vtt");
}

TEST_F(WebvttWriter, ReportsEachCueThatGoesIntoAFragmentOfAnotherNumber)
{
    start();
    create_vtt_output(bundle, "eng").next_seq = 41;
    queue_cue("eng", 11000, "one");
    queue_cue("eng", 13000, "two");
    EXPECT_EQ(emit(), "VTT lang 'eng' fragment mismatch: ts=0 vtt=41 (BUG!)\n"
                      "VTT lang 'eng' fragment mismatch: ts=0 vtt=41 (BUG!)\n");
    EXPECT_EQ(text_of("ch1.00000041.ts.eng.vtt"), header_at_10_s + "0:00:11.000 --> 0:00:12.000\n"
                                                                   "one\n"
                                                                   "\n"
                                                                   "0:00:13.000 --> 0:00:14.000\n"
                                                                   "two\n"
                                                                   "\n");
}

// The language's first fragment had a cue, so only the second is empty.
TEST_F(WebvttWriter, ACutWritesAShortHeaderWhereNoCueCame)
{
    start();
    queue_cue("eng", 11000, "one");
    queue_cue("v0", 11000, "one");
    emit();
    EXPECT_EQ(cut(16000), nameless_lines);
    EXPECT_EQ(text_of("ch1.00000001.ts.eng.vtt"), "");

    queue_cue("v0", 17000, "two");
    emit();
    const std::string printed = cut(22000);
    const std::string line =
        "WebVTT language fragment 'eng' never got any events, writing empty file\n";
    EXPECT_TRUE(printed.ends_with("(FIX THIS BUG)\n" + line)) << printed;
    EXPECT_EQ(text_of("ch1.00000001.ts.eng.vtt"), "WEBVTT\n"
                                                  "Kind: captions\n"
                                                  "Language: eng\n"
                                                  "\n");
    EXPECT_EQ(text_of("ch1.m3u8.av.m3u8.eng.vtt.m3u8"), "#EXTM3U\n"
                                                        "#EXT-X-VERSION:4\n"
                                                        "#EXT-X-TARGETDURATION:4\n"
                                                        "#EXT-X-MEDIA-SEQUENCE:0\n"
                                                        "\n"
                                                        "#EXTINF:6.000,\n"
                                                        "ch1.00000000.ts.eng.vtt\n"
                                                        "\n"
                                                        "#EXTINF:6.000,\n"
                                                        "ch1.00000001.ts.eng.vtt\n"
                                                        "\n");
}

TEST_F(WebvttWriter, TheSubtitleGroupAppearsAtTheFirstCutThatFindsALanguage)
{
    start();
    EXPECT_EQ(subtitles_group, "");
    queue_cue("eng", 11000, "one");
    emit();
    EXPECT_EQ(subtitles_group, "");
    cut(16000);
    EXPECT_EQ(subtitles_group, "subs");
}

// Puts a device without room behind the rendition's open descriptor.
void fill_disk(HLSoutput& output)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    ASSERT_GE(dup2(full, output.frag_fd), 0);
    close(full);
}

TEST_F(WebvttWriter, ACueThatCannotBeWrittenIsLostAndTheNextOpensAFragment)
{
    start();
    queue_cue("eng", 11000, "one");
    emit();
    HLSoutput& output = vtt_outputs.at("eng");
    fill_disk(output);
    queue_cue("eng", 13000, "two");
    EXPECT_EQ(emit(), "");
    EXPECT_TRUE(vtt_queues["eng"].empty());
    EXPECT_EQ(output.frag_fd, -1);
    EXPECT_EQ(output.frag_path, "");
    EXPECT_TRUE(fs::exists("ch1.m3u8.av.m3u8.eng.vtt.m3u8")); // rewritten at once

    queue_cue("eng", 15000, "three");
    EXPECT_EQ(emit(), "VTT lang 'eng' fragment mismatch: ts=0 vtt=1 (BUG!)\n");
    EXPECT_EQ(text_of("ch1.00000000.ts.eng.vtt"), header_at_10_s + "0:00:11.000 --> 0:00:12.000\n"
                                                                   "one\n"
                                                                   "\n");
    EXPECT_EQ(text_of("ch1.00000001.ts.eng.vtt"), header_at_10_s + "0:00:15.000 --> 0:00:16.000\n"
                                                                   "three\n"
                                                                   "\n");

    // The next cut brings the numbers together again.
    cut(16000);
    EXPECT_EQ(output.frag_path, "ch1.00000001.ts.eng.vtt");
    cut(22000);
    EXPECT_EQ(output.frag_path, "ch1.00000002.ts.eng.vtt");
}

TEST_F(WebvttWriter, ARenditionWhoseFilesCannotBeOpenedLosesItsCuesAndTheOthersGoOn)
{
    start();
    queue_cue("a/b", 11000, "lost"); // no such directory
    queue_cue("eng", 11000, "one");
    emit();
    EXPECT_TRUE(vtt_queues["a/b"].empty());
    EXPECT_TRUE(vtt_queues["eng"].empty());
    EXPECT_EQ(vtt_files(), names_list({"ch1.00000000.ts.eng.vtt"}));
    cut(16000);
    EXPECT_EQ(vtt_files(), names_list({"ch1.00000000.ts.eng.vtt", "ch1.00000001.ts.eng.vtt",
                                       "ch1.m3u8.av.m3u8.eng.vtt.m3u8"}));
}

TEST_F(WebvttWriter, AFailedShortHeaderLeavesAnEntryWithoutAName)
{
    start();
    queue_cue("eng", 11000, "one");
    emit();
    cut(16000);
    fill_disk(vtt_outputs.at("eng"));
    const std::string printed = cut(22000);
    EXPECT_TRUE(printed.ends_with(
        "WebVTT language fragment 'eng' never got any events, writing empty file\n"
        "M3U8 warning: Fragment name is missing for segment 1 'ch1.m3u8.av.m3u8.eng.vtt.m3u8' (FIX THIS BUG)\n"))
        << printed;
    EXPECT_EQ(text_of("ch1.m3u8.av.m3u8.eng.vtt.m3u8"), "#EXTM3U\n"
                                                        "#EXT-X-VERSION:4\n"
                                                        "#EXT-X-TARGETDURATION:4\n"
                                                        "#EXT-X-MEDIA-SEQUENCE:0\n"
                                                        "\n"
                                                        "#EXTINF:6.000,\n"
                                                        "ch1.00000000.ts.eng.vtt\n"
                                                        "\n"
                                                        "\n");
    EXPECT_EQ(vtt_outputs.at("eng").frag_path, "ch1.00000002.ts.eng.vtt");
}

} // namespace
