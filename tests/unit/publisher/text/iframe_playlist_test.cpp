#include "publisher/text/iframe_playlist.hpp"

#include <gtest/gtest.h>

#include "publisher/timeline/segmenting.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t noon = int64_t{1795262400} * second; // 2026-11-21 12:00:00 UTC

// Two keyframes in each of three segments; the second one has none.
presentation three_segments()
{
    presentation p;
    p.target_duration = 4;
    uint64_t number = 1000;
    for (uint64_t i = 0; i < 3; i++) {
        segment_file lead{.track = "main", .bytes = 200000, .first_keyframe = number};
        if (i != 1)
            lead.keyframes = {{.begin = 376, .bytes = 7520, .at = 0},
                              {.begin = 90240, .bytes = 3760, .at = 3 * second}};
        number += lead.keyframes.size();
        p.listed.push_back({
            .sequence = 70 + i,
            .discontinuity_number = 5,
            .duration = 4 * second,
            .date = noon + static_cast<int64_t>(i) * 4 * second,
            .files = {lead, {.track = "main.audio", .bytes = 20000}},
        });
    }
    return p;
}

} // namespace

TEST(IframePlaylist, ReadsLineByLine)
{
    EXPECT_EQ(whole_iframe_playlist(three_segments(), "main"),
              "#EXTM3U\n"
              "#EXT-X-VERSION:4\n"
              "#EXT-X-TARGETDURATION:4\n"
              "#EXT-X-MEDIA-SEQUENCE:1000\n"
              "#EXT-X-DISCONTINUITY-SEQUENCE:5\n"
              "#EXT-X-I-FRAMES-ONLY\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:00.000Z\n"
              "#EXTINF:3.00000,\n"
              "#EXT-X-BYTERANGE:7520@376\n"
              "main.70.ts\n"
              "#EXTINF:1.00000,\n"
              "#EXT-X-BYTERANGE:3760@90240\n"
              "main.70.ts\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:08.000Z\n"
              "#EXTINF:3.00000,\n"
              "#EXT-X-BYTERANGE:7520@376\n"
              "main.72.ts\n"
              "#EXTINF:1.00000,\n"
              "#EXT-X-BYTERANGE:3760@90240\n"
              "main.72.ts\n");
}

TEST(IframePlaylist, CountsTheKeyframesThatLeft)
{
    presentation p = three_segments();
    for (const uint64_t want : {1000u, 1002u, 1002u}) {
        EXPECT_NE(
            whole_iframe_playlist(p, "main").find("MEDIA-SEQUENCE:" + std::to_string(want) + '\n'),
            std::string::npos);
        p.listed.pop_front();
    }
    EXPECT_EQ(whole_iframe_playlist(p, "main"), "");
}

TEST(IframePlaylist, TellsADiscontinuityWithTheNextKeyframe)
{
    presentation p = three_segments();
    p.listed[1].discontinuity = true;
    p.listed[1].discontinuity_number = p.listed[2].discontinuity_number = 6;
    EXPECT_NE(whole_iframe_playlist(p, "main").find(
                  "main.70.ts\n#EXT-X-DISCONTINUITY\n#EXT-X-PROGRAM-DATE-TIME:"),
              std::string::npos);
    p.listed.pop_front();
    EXPECT_NE(whole_iframe_playlist(p, "main").find("#EXT-X-DISCONTINUITY-SEQUENCE:5\n"),
              std::string::npos);
    EXPECT_NE(whole_iframe_playlist(p, "main").find("#EXT-X-DISCONTINUITY\n"), std::string::npos);
    p.listed.pop_front();
    EXPECT_NE(whole_iframe_playlist(p, "main").find("#EXT-X-DISCONTINUITY-SEQUENCE:6\n"),
              std::string::npos);
    EXPECT_EQ(whole_iframe_playlist(p, "main").find("#EXT-X-DISCONTINUITY\n"), std::string::npos);
}

TEST(IframePlaylist, IsNamedByTheMaster)
{
    rung_facts rung{.name = "main", .streams = {}};
    rung.streams.video = {.codec = "avc1.42C014", .width = 320, .height = 180};
    EXPECT_EQ(iframe_stream_text(rung), "") << "none is listed";
    rung.keyframe_peak_bandwidth = 15040;
    rung.keyframe_average_bandwidth = 11280;
    EXPECT_EQ(iframe_stream_text(rung),
              "#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=15040,AVERAGE-BANDWIDTH=11280,"
              "CODECS=\"avc1.42C014\",RESOLUTION=320x180,URI=\"main.iframes.m3u8\"\n");
}

TEST(IframePlaylist, MeasuresTheKeyframesAlone)
{
    const presentation p = three_segments();
    const bandwidth measured = keyframe_bandwidth(p, "main");
    EXPECT_EQ(measured.average, 2u * (7520 + 3760) * 8 / 8 + 1);
    EXPECT_EQ(measured.peak, (7520u + 3760) * 8 / 4 + 1) << "the last one and the next";
    EXPECT_EQ(keyframe_bandwidth(presentation{}, "main").peak, 0u);
}

TEST(IframePlaylist, KeyframesComeBackFromIt)
{
    presentation p = three_segments();
    const media_list list = parse_media_list(whole_iframe_playlist(p, "main"));
    const std::deque<segment> want = p.listed;
    for (segment& s : p.listed) {
        s.files[0].keyframes.clear();
        s.files[0].first_keyframe = 0;
    }
    take_up_keyframes(list, "main", p.listed);
    EXPECT_EQ(p.listed, want);
    EXPECT_EQ(first_keyframe_behind(&p.listed.back(), "main", 5), 1004u);
    EXPECT_EQ(first_keyframe_behind(nullptr, "main", 1795262400), 7181049600u) << "four a second";

    // The first segment has left the list of segments already.
    std::deque<segment> shorter = {p.listed[2]};
    shorter[0].files[0] = {.track = "main", .bytes = 200000};
    take_up_keyframes(list, "main", shorter);
    EXPECT_EQ(shorter[0], want[2]);
}

TEST(IframePlaylist, TakesUpNothingThatIsNotCounted)
{
    presentation p = three_segments();
    std::string text = whole_iframe_playlist(p, "main");
    const std::string number = "#EXT-X-MEDIA-SEQUENCE:";
    text.replace(text.find(number), number.size(), "#EXT-X-NOTHING:");
    for (segment& s : p.listed)
        s.files[0] = {.track = "main", .bytes = 200000};
    const std::deque<segment> without = p.listed;
    take_up_keyframes(parse_media_list(text), "main", p.listed);
    EXPECT_EQ(p.listed, without);
    for (segment& s : p.listed)
        s.files[0].keyframes = {{.begin = 376, .bytes = 1880, .at = 0}};
    EXPECT_EQ(whole_iframe_playlist(p, "main"), "");
}

TEST(IframePlaylist, ListsTwoInASecondOfAStreamOfKeyframes)
{
    segment_file lead{.track = "main"};
    for (int64_t at = 0; at < second; at += 3600) {
        if (is_keyframe_listed(lead, at))
            lead.keyframes.push_back({.at = at});
    }
    ASSERT_EQ(lead.keyframes.size(), 2u);
    EXPECT_EQ(lead.keyframes[1].at, 13 * 3600);
}
