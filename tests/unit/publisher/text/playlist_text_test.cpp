#include "publisher/text/playlist_text.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "publisher/text/language_names.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t noon = int64_t{1795262400} * pts_ticks_per_second; // 2026-11-21 12:00:00 UTC

constexpr const char* lead = "main";

segment segment_at(uint64_t sequence, int64_t milliseconds, int64_t date)
{
    return {.sequence = sequence,
            .duration = milliseconds * pts_ticks_per_millisecond,
            .date = date,
            .files = {{.track = "main", .bytes = 1000}}};
}

track shared_track(const std::string& name, const std::string& language)
{
    track t = track_named(name);
    t.language = language;
    return t;
}

presentation two_segments()
{
    presentation p;
    p.target_duration = 6;
    p.listed = {segment_at(70, 5760, noon), segment_at(71, 6000, noon + 5760 * 90)};
    p.master.rungs = {{.name = "main", .streams = {}}};
    return p;
}

} // namespace

TEST(MediaPlaylist, ReadsLineByLine)
{
    EXPECT_EQ(whole_media_playlist(two_segments(), lead),
              "#EXTM3U\n"
              "#EXT-X-VERSION:4\n"
              "#EXT-X-INDEPENDENT-SEGMENTS\n"
              "#EXT-X-TARGETDURATION:6\n"
              "#EXT-X-MEDIA-SEQUENCE:70\n"
              "#EXT-X-DISCONTINUITY-SEQUENCE:0\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:00.000Z\n"
              "#EXTINF:5.76000,\n"
              "main.70.ts\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:05.760Z\n"
              "#EXTINF:6.00000,\n"
              "main.71.ts\n");
}

TEST(MediaPlaylist, CountsTheDiscontinuitiesThatLeft)
{
    presentation p = two_segments();
    p.listed[0].discontinuity = true;
    p.listed[0].discontinuity_number = 4;
    p.listed[1].discontinuity_number = 4;
    const std::string text = whole_media_playlist(p, lead);
    EXPECT_NE(text.find("#EXT-X-DISCONTINUITY-SEQUENCE:3\n#EXT-X-DISCONTINUITY\n"),
              std::string::npos)
        << text;

    p.listed.pop_front();
    EXPECT_NE(whole_media_playlist(p, lead).find("#EXT-X-DISCONTINUITY-SEQUENCE:4\n"),
              std::string::npos);
}

TEST(MediaPlaylist, SaysIndependentOnlyWhileEverySegmentIs)
{
    presentation p = two_segments();
    p.listed[1].independent = false;
    EXPECT_EQ(whole_media_playlist(p, lead).find("INDEPENDENT"), std::string::npos);
}

TEST(MediaPlaylist, IsAnEventUntilSomethingLeavesIt)
{
    presentation p = two_segments();
    p.event_begin = 70;
    EXPECT_NE(whole_media_playlist(p, lead).find("\n#EXT-X-PLAYLIST-TYPE:EVENT\n"),
              std::string::npos);
    p.listed.pop_front();
    EXPECT_EQ(whole_media_playlist(p, lead).find("EVENT"), std::string::npos);
}

// RFC 8216 6.2.1: a list of the type EVENT only grows at its end.
TEST(MediaPlaylist, TellsDateRangesWithTheSegmentThatTheyCameWith)
{
    presentation p = two_segments();
    p.event_begin = 70;
    splice_cue cue{.kind = splice_kind::out, .event = "insert-7", .section = "0x01"};
    const auto take = [&](int64_t seconds, int64_t now) {
        cue.time = seconds * pts_ticks_per_second;
        EXPECT_TRUE(take_splice(p.ranges, cue, noon + cue.time, noon + now * pts_ticks_per_second));
    };
    take(12, 2); // with segment 70
    take(17, 7); // with segment 71, instead
    cue.kind = splice_kind::in;
    cue.section = "0x02";
    take(19, 8); // which is told when it has come
    const std::string before = whole_media_playlist(p, lead);
    const std::string range = "#EXT-X-DATERANGE:ID=\"insert-7-17952624";
    const std::string at = "\",START-DATE=\"2026-11-21T12:00:";
    const std::string moved = range + "12000" + at + "12.000Z\",";
    const std::string split = range + "17000" + at + "17.000Z\",";
    EXPECT_EQ(before.substr(before.find("SEQUENCE:0\n") + 11),
              moved + "SCTE35-OUT=0x01\n" +
                  "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:00.000Z\n"
                  "#EXTINF:5.76000,\n"
                  "main.70.ts\n" +
                  moved + "DURATION=0.000\n" + split +
                  "SCTE35-OUT=0x01\n"
                  "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:05.760Z\n"
                  "#EXTINF:6.00000,\n"
                  "main.71.ts\n");
    p.listed.push_back(segment_at(72, 6000, p.listed[1].date + 6000 * 90));
    p.listed.push_back(segment_at(73, 6000, p.listed[2].date + 6000 * 90));
    const std::string after = whole_media_playlist(p, lead);
    EXPECT_TRUE(after.starts_with(before)) << after;
    EXPECT_NE(after.find("main.72.ts\n" + split + "DURATION=2.000,SCTE35-IN=0x02\n"),
              std::string::npos)
        << after;

    p.listed.pop_front();
    EXPECT_NE(whole_media_playlist(p, lead).find("SEQUENCE:0\n" + moved + "SCTE35-OUT"),
              std::string::npos)
        << "those that are older stand first";
}

TEST(MediaPlaylist, NamesTheFolderOfTheHour)
{
    presentation p = two_segments();
    p.listed[1].in_folder = true;
    EXPECT_TRUE(whole_media_playlist(p, lead).ends_with("\n20261121T12Z/main.71.ts\n"));
    p.listed[1].date = noon - 1;
    EXPECT_TRUE(whole_media_playlist(p, lead).ends_with("\n20261121T11Z/main.71.ts\n"));
}

TEST(SegmentNames, TellTheirNumber)
{
    EXPECT_EQ(parse_segment_name("main.71.ts").sequence, 71u);
    EXPECT_EQ(parse_segment_name("main.sub-eng.71.vtt").sequence, 71u);
    EXPECT_EQ(parse_segment_name("main.sub-eng.71.vtt").track, "main.sub-eng");
    for (const char* other : {"main.71.m3u8", "main.71.vtt", "main.ts", "main.x1.ts", "main.7x.ts",
                              ".ts", "main..ts", "main.99999999999999999999.ts", ""})
        EXPECT_EQ(parse_segment_name(other).sequence, 0u) << other;
    EXPECT_TRUE(is_folder_of_hour("20261121T11Z"));
    for (const char* other : {"20261121T11", "20261121T11Z1", "2026112xT11Z", "..", ""})
        EXPECT_FALSE(is_folder_of_hour(other)) << other;
}

TEST(MediaPlaylist, OfATrackThatCameLaterBeginsWithItsFirstSegment)
{
    presentation p = two_segments();
    p.listed[1].files.push_back({.track = "main.audio", .bytes = 10});
    const std::string text = whole_media_playlist(p, "main.audio");
    EXPECT_NE(text.find("#EXT-X-MEDIA-SEQUENCE:71\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nmain.audio.71.ts\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("main.audio.70.ts"), std::string::npos) << text;
}

TEST(MediaPlaylist, EndsWithEndlistWhenThePresentationHasEnded)
{
    presentation p = two_segments();
    p.ended = true;
    EXPECT_TRUE(whole_media_playlist(p, lead).ends_with("main.71.ts\n#EXT-X-ENDLIST\n"));
}

TEST(MasterPlaylist, ReadsLineByLine)
{
    presentation p = two_segments();
    p.master.rungs = {{
        .name = "main",
        .streams =
            {
                .video = {.codec = "avc1.4D4028", .width = 1920, .height = 1080, .frame_rate = 25},
                .audio = {{.codec = "mp4a.40.2", .language = "deu", .channels = 2}},
                .captions = {},
            },
        .peak_bandwidth = 8200000,
        .average_bandwidth = 7900000,
    }};
    EXPECT_EQ(master_playlist_text(p),
              "#EXTM3U\n"
              "#EXT-X-VERSION:4\n"
              "#EXT-X-INDEPENDENT-SEGMENTS\n"
              "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"German\",LANGUAGE=\"de\","
              "DEFAULT=YES,AUTOSELECT=YES\n"
              "#EXT-X-STREAM-INF:BANDWIDTH=8200000,AVERAGE-BANDWIDTH=7900000,"
              "CODECS=\"avc1.4D4028,mp4a.40.2\",RESOLUTION=1920x1080,FRAME-RATE=25.000,"
              "AUDIO=\"audio\",CLOSED-CAPTIONS=NONE\n"
              "main.m3u8\n");
}

TEST(MasterPlaylist, NamesRenditionsByTheirLanguages)
{
    presentation p = two_segments();
    p.master.shared = {
        shared_track("main.audio", "eng"),
        shared_track("main.sap", "eng"),
        shared_track("main.sub-spa", "spa"),
        shared_track("main.sub-v1", "v1"),
    };
    const std::string text = master_playlist_text(p);
    for (const char* line : {
             "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"English\",LANGUAGE=\"en\","
             "DEFAULT=YES,AUTOSELECT=YES,URI=\"main.audio.m3u8\"\n",
             "NAME=\"English 2\",LANGUAGE=\"en\",DEFAULT=NO,AUTOSELECT=YES,"
             "URI=\"main.sap.m3u8\"\n",
             "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subtitles\",NAME=\"Spanish\","
             "LANGUAGE=\"es\",DEFAULT=NO,AUTOSELECT=YES,URI=\"main.sub-spa.m3u8\"\n",
             "NAME=\"v1\",DEFAULT=NO,AUTOSELECT=NO,URI=\"main.sub-v1.m3u8\"\n",
             ",AUDIO=\"audio\",SUBTITLES=\"subtitles\",CLOSED-CAPTIONS=NONE\n",
         })
        EXPECT_NE(text.find(line), std::string::npos) << line << "is not in\n" << text;
}

// Players play a sound that stands alone in the group, and not the one with the pictures.
TEST(MasterPlaylist, NamesTheSoundThatGoesWithThePictures)
{
    presentation p = two_segments();
    stream_facts& streams = p.master.rungs[0].streams;
    streams.video.codec = "avc1.4D4028";
    const std::string muxed = "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"Main\","
                              "DEFAULT=YES,AUTOSELECT=YES\n";
    const auto is_named = [&] {
        return master_playlist_text(p).find(muxed) != std::string::npos;
    };
    p.master.shared = {shared_track("main.sap", "")};
    EXPECT_FALSE(is_named()) << "there is none";
    streams.audio = {{.codec = "mp4a.40.2", .language = "", .channels = 2}};
    EXPECT_TRUE(is_named());
    EXPECT_NE(master_playlist_text(p).find(
                  muxed + "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"audio\",NAME=\"Secondary\","
                          "DEFAULT=NO,AUTOSELECT=YES,URI=\"main.sap.m3u8\"\n"),
              std::string::npos);
    p.master.shared.push_back(shared_track("main.audio", ""));
    EXPECT_FALSE(is_named()) << "it goes separately";
    p.master.shared.clear();
    EXPECT_FALSE(is_named()) << "there is nothing to say of it";
    p.master.shared = {shared_track("main.sap", "")};
    streams.video.codec.clear();
    EXPECT_FALSE(is_named()) << "there are no pictures";
}

TEST(MasterPlaylist, NamesTheCaptionsThatThePicturesCarry)
{
    presentation p = two_segments();
    p.master.rungs[0].streams.captions = {.channels = 0b0101, .services = 0b10};
    const std::string text = master_playlist_text(p);
    for (const char* part : {"#EXT-X-VERSION:7\n", "INSTREAM-ID=\"CC1\"\n", "INSTREAM-ID=\"CC3\"\n",
                             "INSTREAM-ID=\"SERVICE1\"\n", ",CLOSED-CAPTIONS=\"captions\"\n"})
        EXPECT_NE(text.find(part), std::string::npos) << part << "is not in\n" << text;
    EXPECT_EQ(text.find("CC2"), std::string::npos) << text;
}

namespace
{

// Both rungs have the first segments; the second lacks those that `away` tells.
presentation ladder(std::initializer_list<size_t> away)
{
    presentation p = two_segments();
    p.listed.clear();
    for (uint64_t i = 0; i < 10; i++) {
        p.listed.push_back(segment_at(70 + i, 6000, noon));
        if (std::find(away.begin(), away.end(), i) == away.end())
            p.listed.back().files.push_back({.track = "low", .bytes = 100});
    }
    p.master.rungs.push_back({.name = "low", .streams = {}});
    return p;
}

} // namespace

TEST(MasterPlaylist, HasAVariantForEachRung)
{
    presentation p = ladder({});
    p.master.rungs[0].peak_bandwidth = 5000;
    p.master.rungs[1].peak_bandwidth = 1000;
    p.master.rungs[1].streams.video.codec = "avc1.42C00D";
    track audio = shared_track("main.audio", "eng");
    audio.codec = "mp4a.40.2";
    p.master.shared = {audio};
    const std::string text = master_playlist_text(p);
    EXPECT_NE(text.find("#EXT-X-STREAM-INF:BANDWIDTH=5000,AVERAGE-BANDWIDTH=0,"
                        "CODECS=\"mp4a.40.2\",AUDIO=\"audio\",CLOSED-CAPTIONS=NONE\nmain.m3u8\n"
                        "#EXT-X-STREAM-INF:BANDWIDTH=1000,AVERAGE-BANDWIDTH=0,"
                        "CODECS=\"avc1.42C00D,mp4a.40.2\",AUDIO=\"audio\",CLOSED-CAPTIONS=NONE\n"
                        "low.m3u8\n"),
              std::string::npos)
        << text;
}

TEST(ListedRungs, AreThoseThatAPlayerCanChangeTo)
{
    using names = std::vector<std::string>;
    EXPECT_EQ(listed_rungs(ladder({})), (names{"main", "low"}));
    EXPECT_EQ(listed_rungs(ladder({9})), names{"main"}) << "the newest is missing";
    EXPECT_EQ(listed_rungs(ladder({7})), names{"main"}) << "two segments of six seconds";
    EXPECT_EQ(listed_rungs(ladder({6})), (names{"main", "low"})) << "three target durations";
    presentation p = ladder({7});
    while (p.listed.size() > 2)
        p.listed.pop_front();
    EXPECT_EQ(listed_rungs(p), (names{"main", "low"})) << "as long as any";
    EXPECT_EQ(listed_rungs(presentation{}), names{});
}

TEST(MasterPlaylist, LeavesOutOfQuotesWhatTheyCannotHold)
{
    presentation p = two_segments();
    p.master.shared = {shared_track("main.sub-x", "a\"b\nc")};
    EXPECT_NE(master_playlist_text(p).find("NAME=\"abc\","), std::string::npos);
}

TEST(Names, KeepWhatComesFromTheStreamInsideTheDirectory)
{
    EXPECT_EQ(subtitle_part("eng"), "sub-eng");
    EXPECT_EQ(subtitle_part("../x y"), "sub-_2E_2E_2Fx_20y");
    EXPECT_EQ(segment_file_name(shared_track_name("main", "sub-eng"), {.sequence = 7, .files = {}}),
              "main.sub-eng.7.vtt");
}

TEST(Languages, AreTaggedAsRfc5646WantsThem)
{
    EXPECT_EQ(language_tag("ger"), "de");
    EXPECT_EQ(language_tag("deu"), "de");
    EXPECT_EQ(language_tag("und"), "");
    EXPECT_EQ(language_tag("v0"), "");
    EXPECT_EQ(language_display_name("fra"), "French");
}
