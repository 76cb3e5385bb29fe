#include "v2/playlist/media_playlist.hpp"

#include <string_view>

#include <gtest/gtest.h>

namespace
{

m3u8_entry entry(uint64_t sequence, double duration = 6.0)
{
    return {
        .name = "f" + std::to_string(sequence) + ".ts", .sequence = sequence, .duration = duration};
}

m3u8_list list_of(std::initializer_list<m3u8_entry> entries)
{
    m3u8_list list;
    list.file_name = "x.m3u8";
    list.target_duration = 6;
    list.entries = entries;
    return list;
}

m3u8_entry marked(m3u8_entry entry, bool m3u8_entry::*flag)
{
    entry.*flag = true;
    return entry;
}

struct body_case {
    std::string_view name;
    m3u8_list list;
    std::string want;
};

const std::string target = "#EXT-X-TARGETDURATION:6\n";

TEST(MediaPlaylist, ListsFromTheFirstUnmarkedEntryOn)
{
    constexpr auto nolist = &m3u8_entry::nolist;
    constexpr auto eraseme = &m3u8_entry::eraseme;
    constexpr auto holdback = &m3u8_entry::holdback;
    const body_case cases[] = {
        {.name = "empty", .list = list_of({}), .want = target + "\n"},
        {.name = "one entry",
         .list = list_of({entry(0)}),
         .want = target + "#EXT-X-MEDIA-SEQUENCE:0\n\n#EXTINF:6.000,\nf0.ts\n\n"},
        {.name = "marked head",
         .list = list_of({marked(entry(7), eraseme), marked(entry(8), nolist), entry(9)}),
         .want = target + "#EXT-X-MEDIA-SEQUENCE:9\n\n#EXTINF:6.000,\nf9.ts\n\n"},
        {.name = "all marked",
         .list = list_of({marked(entry(7), eraseme), marked(entry(8), nolist)}),
         .want = target + "\n"},
        {.name = "held back at once",
         .list = list_of({marked(entry(5), holdback), entry(6)}),
         .want = target + "#EXT-X-MEDIA-SEQUENCE:5\n\n"},
        {.name = "held back behind one",
         .list = list_of({entry(5), marked(entry(6), holdback), entry(7)}),
         .want = target + "#EXT-X-MEDIA-SEQUENCE:5\n\n#EXTINF:6.000,\nf5.ts\n\n"},
        {.name = "a long sequence number",
         .list = list_of({entry(12345678901234567890u)}),
         .want = target + "#EXT-X-MEDIA-SEQUENCE:12345678901234567890\n\n"
                          "#EXTINF:6.000,\nf12345678901234567890.ts\n\n"},
    };
    for (const body_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(media_playlist_body(c.list), c.want);
    }
}

struct duration_case {
    double duration;
    std::string_view want;
};

TEST(MediaPlaylist, PrintsDurationsWithThreeDecimals)
{
    const duration_case cases[] = {
        {.duration = 6.0, .want = "#EXTINF:6.000,\n"},
        {.duration = 5.96, .want = "#EXTINF:5.960,\n"},
        {.duration = 0.0004, .want = "#EXTINF:0.000,\n"},
        {.duration = 599.99999, .want = "#EXTINF:600.000,\n"},
    };
    for (const duration_case& c : cases) {
        SCOPED_TRACE(c.duration);
        EXPECT_EQ(media_playlist_body(list_of({entry(1, c.duration)})),
                  target + "#EXT-X-MEDIA-SEQUENCE:1\n\n" + std::string(c.want) + "f1.ts\n\n");
    }
}

TEST(MediaPlaylist, EscapesNamesAndCopiesTheBaseUrl)
{
    m3u8_list list = list_of({{.name = "a b&c.ts", .sequence = 3, .duration = 1.5}});
    list.base_url = "http://h/ &?/";
    EXPECT_EQ(media_playlist_body(list), target + "#EXT-X-MEDIA-SEQUENCE:3\n\n#EXTINF:1.500,\n"
                                                  "http://h/ &?/a%20b%26c.ts\n\n");
}

TEST(MediaPlaylist, WarnsOfEntriesWithoutNameAndLeavesTheirEmptyLine)
{
    const m3u8_list list = list_of({{.name = "", .sequence = 3, .duration = 6.0}, entry(4)});
    testing::internal::CaptureStderr();
    EXPECT_EQ(media_playlist_body(list),
              target + "#EXT-X-MEDIA-SEQUENCE:3\n\n\n#EXTINF:6.000,\nf4.ts\n\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "M3U8 warning: Fragment name is missing for segment 3 'x.m3u8' (FIX THIS BUG)\n");
}

TEST(MediaPlaylistDeathTest, AbortsOnAMarkedEntryBehindAListedOne)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(media_playlist_body(list_of({entry(1), marked(entry(2), &m3u8_entry::nolist)})),
                 "i->nolist == false");
    EXPECT_DEATH(media_playlist_body(list_of({entry(1), marked(entry(2), &m3u8_entry::eraseme)})),
                 "i->eraseme == false");
}

} // namespace
