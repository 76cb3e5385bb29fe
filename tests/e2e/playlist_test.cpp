// The texts of the playlists that a run writes, and where it writes them.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr int64_t second = 90000;

// One fragment of 5 s and one open. The PMT behind the second cut ends a pass, and the next one
// rewrites the master playlist.
struct two_fragments {
    explicit two_fragments(const programme_fields& programme = {}) : stream(programme)
    {
        stream.start_up();
        first = stream.mark();
        stream.keyframe(900000).null(20);
        next = stream.mark();
        stream.keyframe(900000 + 5 * second).tables().null(1);
    }

    [[nodiscard]] uint64_t bandwidth() const { return (next - first) * 8 / 5; }

    stream_builder stream;
    size_t first = 0;
    size_t next = 0;
};

TEST(Playlists, ReadLineByLine)
{
    const two_fragments two;
    const run_result got = run_on(two.stream.bytes());
    EXPECT_EQ(
        got.files.at("ch1.m3u8"),
        bytes_of(
            "#EXTM3U\n"
            "#EXT-X-VERSION:4\n"
            "#EXT-X-INDEPENDENT-SEGMENTS\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC1\",INSTREAM-ID=\"CC1\",AUTOSELECT=YES,DEFAULT=YES\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC2\",INSTREAM-ID=\"CC2\"\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC3\",INSTREAM-ID=\"CC3\"\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC4\",INSTREAM-ID=\"CC4\"\n"
            "\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=" +
            std::to_string(two.bandwidth()) +
            ",CLOSED-CAPTIONS=\"caps\",RESOLUTION=320x240\n"
            "ch1.m3u8.av.m3u8\n"
            "\n"));
    EXPECT_EQ(got.files.at("ch1.m3u8.av.m3u8"), bytes_of("#EXTM3U\n"
                                                         "#EXT-X-VERSION:4\n"
                                                         "#EXT-X-TARGETDURATION:4\n"
                                                         "#EXT-X-MEDIA-SEQUENCE:0\n"
                                                         "\n"
                                                         "#EXTINF:5.000,\n"
                                                         "ch1.00000000.ts\n"
                                                         "\n"));
    EXPECT_EQ(got.files.at(".tmp"), bytes_of("#EXTM3U\n"
                                             "#EXT-X-VERSION:4\n"
                                             "#EXT-X-TARGETDURATION:4\n"
                                             "#EXT-X-MEDIA-SEQUENCE:0\n"
                                             "\n"
                                             "\n"));
    EXPECT_EQ(got.standard_error,
              "PAT: Locking onto Program 0001h PMT 1000h\n"
              "Got PAT. Chose PMT=1000h\n"
              "Got PMT. Chose audio=0102h video=0101h.\n"
              "M3U8 warning: Fragment name is missing for segment 0 '' (FIX THIS BUG)\n"
              "M3U8 warning: Fragment name is missing for segment 0 '' (FIX THIS BUG)\n"
              "Stream EOF\n");
    EXPECT_EQ(got.ending, "exit 0");
}

TEST(Playlists, BeforeTheFirstFinishedFragmentListNothing)
{
    stream_builder stream;
    stream.start_up();
    const size_t begin = stream.mark();
    stream.keyframe(900000);
    const run_result got = run_on(stream.bytes());
    EXPECT_TRUE(same_run(got, expected_default_run(stream, {.starts = {begin}})));
    EXPECT_EQ(got.files.at("ch1.m3u8.av.m3u8"), bytes_of("#EXTM3U\n"
                                                         "#EXT-X-VERSION:4\n"
                                                         "#EXT-X-TARGETDURATION:4\n"
                                                         "\n"));
}

TEST(Playlists, EscapeFileNamesAndCopyTheBaseUrl)
{
    const two_fragments two;
    const run_result got =
        run_on(two.stream.bytes(), {"--base-url", "http://h/a b?c&d%/", "--frag-name",
                                    "f %&?#+\"=\xC3\xA9\x7F", "--m3u8-name", "m ?&.m3u8"});
    const std::string base = "http://h/a b?c&d%/";
    EXPECT_EQ(got.files.at("m ?&.m3u8.av.m3u8"),
              media_playlist({.first_sequence = 0,
                              .fragments = {{"5.000", base + "f%20%25%26%3F#+\"=\xC3\xA9\x7F" +
                                                          ".00000000.ts"}}}));
    EXPECT_EQ(got.files.at("m ?&.m3u8"),
              master_playlist({.bandwidth = two.bandwidth(),
                               .resolution = "320x240",
                               .variant = base + "m%20%3F%26.m3u8.av.m3u8"}));
    EXPECT_EQ(got.files.size(), 5u);
}

TEST(Playlists, MayLieInADirectory)
{
    const two_fragments two;
    const run_result got = run_program({.arguments = {"--m3u8-name", "sub/x.m3u8"},
                                        .input = {.bytes = two.stream.bytes()},
                                        .files = {{"sub/", {}}}});
    const file_map want = {
        {"sub/", {}},
        {"sub/x.m3u8", master_playlist({.bandwidth = two.bandwidth(),
                                        .resolution = "320x240",
                                        .variant = "sub/x.m3u8.av.m3u8"})},
        {"sub/x.m3u8.av.m3u8",
         media_playlist({.first_sequence = 0, .fragments = {{"5.000", "ch1.00000000.ts"}}})},
        {".tmp", media_playlist({.first_sequence = 0, .fragments = nameless(1)})},
        {"ch1.00000000.ts", two.stream.between(two.first, two.next)},
        {"ch1.00000001.ts", two.stream.from(two.next)},
    };
    EXPECT_EQ(got.ending, "exit 0");
    EXPECT_TRUE(same_files(got.files, want));
}

TEST(Playlists, ThatCannotBeWrittenAreSkippedWithoutAWord)
{
    const two_fragments two;
    const run_result got = run_on(two.stream.bytes(), {"--m3u8-name", "missing/x.m3u8"});
    const file_map want = {
        {".tmp", media_playlist({.first_sequence = 0, .fragments = nameless(1)})},
        {"ch1.00000000.ts", two.stream.between(two.first, two.next)},
        {"ch1.00000001.ts", two.stream.from(two.next)},
    };
    EXPECT_EQ(got.ending, "exit 0");
    EXPECT_EQ(got.standard_error, programme_lines() + nameless_warnings(0, 0) +
                                      nameless_warnings(0, 0) + "Stream EOF\n");
    EXPECT_TRUE(same_files(got.files, want));
}

TEST(Playlists, WhoseNameIsTakenByADirectoryLeaveTheirTemporaryFile)
{
    const two_fragments two;
    const run_result got =
        run_program({.input = {.bytes = two.stream.bytes()}, .files = {{"ch1.m3u8.av.m3u8/", {}}}});
    EXPECT_EQ(got.ending, "exit 0");
    EXPECT_EQ(got.files.at("ch1.m3u8.av.m3u8.tmp"),
              media_playlist({.first_sequence = 0, .fragments = {{"5.000", "ch1.00000000.ts"}}}));
    EXPECT_TRUE(got.files.contains("ch1.m3u8.av.m3u8/"));
}

// The cuts of the stream's last part fall into one pass; nothing rewrites the master after it.
TEST(MasterPlaylist, IsRewrittenAtTheBeginningOfAPass)
{
    stream_builder stream;
    stream.start_up();
    stream.keyframe(900000).null(100);
    stream.keyframe(900000 + 5 * second);
    EXPECT_EQ(run_on(stream.bytes()).files.at("ch1.m3u8"), master_playlist({}));
}

TEST(SingleLevel, WritesOneMediaPlaylistUnderTheGivenName)
{
    const two_fragments two;
    const run_result got = run_on(two.stream.bytes(), {"--no-multilevel"});
    const expected_run want{
        .standard_error =
            programme_lines() + nameless_warnings(0, 0) + nameless_warnings(0, 0) + "Stream EOF\n",
        .files = {
            {"ch1.m3u8",
             media_playlist({.first_sequence = 0, .fragments = {{"5.000", "ch1.00000000.ts"}}})},
            {".tmp", media_playlist({.first_sequence = 0, .fragments = nameless(1)})},
            {"ch1.00000000.ts", two.stream.between(two.first, two.next)},
            {"ch1.00000001.ts", two.stream.from(two.next)},
        }};
    EXPECT_TRUE(same_run(got, want));
}

} // namespace
