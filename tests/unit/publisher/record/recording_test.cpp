#include "publisher/record/recording.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "publisher/text/playlist_text.hpp"
#include "tests/support/scratch_directory.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

namespace fs = std::filesystem;

constexpr int64_t noon = int64_t{1795262400} * pts_ticks_per_second; // 2026-11-21 12:00:00 UTC
constexpr int64_t length = 4 * pts_ticks_per_second;

// A break of a minute, ANSI/SCTE 35, 14.
const std::vector<uint8_t> sample_insert = {
    0xFC, 0x30, 0x2F, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xF0, 0x14,
    0x05, 0x48, 0x00, 0x00, 0x8F, 0x7F, 0xEF, 0xFE, 0x73, 0x69, 0xC0, 0x2E, 0xFE,
    0x00, 0x52, 0xCC, 0xF5, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x08, 0x43,
    0x55, 0x45, 0x49, 0x00, 0x00, 0x01, 0x35, 0x62, 0xDB, 0xA3, 0x0A,
};

// Segments of four seconds with Spanish subtitles, numbered from 0 at noon.
class Recording : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directory(live_);
        p_.target_duration = 4;
        track subtitles = track_named("main.sub-spa");
        subtitles.language = "spa";
        p_.master.rungs = {{.name = "main", .streams = {}}};
        p_.master.shared = {subtitles};
        tracks_ = {track_named("main"), subtitles};
    }

    static int64_t at(int64_t n) { return noon + n * length; }

    void publish(bool discontinuity = false)
    {
        segment s{.sequence = p_.next_sequence++,
                  .discontinuity = discontinuity,
                  .independent = independent_,
                  .duration = length,
                  .date = at(static_cast<int64_t>(p_.next_sequence) - 1),
                  .files = {{.track = "main", .bytes = 1}, {.track = "main.sub-spa", .bytes = 1}}};
        for (const track& t : tracks_)
            write(live_ / segment_file_name(t.name, s), t.name + std::to_string(s.sequence));
        p_.listed.push_back(s);
        if (p_.listed.size() > 5)
            p_.listed.pop_front();
        write_playlists();
    }

    void publish_many(int count)
    {
        for (int i = 0; i < count; i++)
            publish();
    }

    void write_playlists()
    {
        p_.master.independent = independent_;
        for (const track& t : tracks_)
            write(live_ / media_playlist_name(t.name), whole_media_playlist(p_, t.name));
        write(live_ / "index.m3u8", master_playlist_text(p_));
    }

    static void write(const fs::path& path, const std::string& text)
    {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    }

    static std::string text_of(const fs::path& path)
    {
        const auto bytes = read_file(path);
        return {bytes.begin(), bytes.end()};
    }

    recording open(int64_t begin = whenever, int64_t end = whenever)
    {
        recording r({.from = live_, .to = recorded_, .begin = begin, .end = end});
        std::string error;
        EXPECT_TRUE(r.open(error)) << error;
        return r;
    }

    static recording_state step(recording& r)
    {
        std::string error;
        const recording_state state = r.step(error);
        EXPECT_EQ(error, "");
        return state;
    }

    void close(recording& r)
    {
        std::string error;
        ASSERT_TRUE(r.close(error)) << error;
    }

    // The segments that a recorded list names, each of which is there.
    std::vector<std::string> recorded(const std::string& list = "main.m3u8")
    {
        std::vector<std::string> names;
        for (const listed_segment& s : parse_media_list(text_of(recorded_ / list)).segments) {
            EXPECT_TRUE(fs::is_regular_file(recorded_ / s.uri)) << s.uri;
            names.push_back(s.uri);
        }
        return names;
    }

    size_t files()
    {
        return static_cast<size_t>(
            std::distance(fs::directory_iterator(recorded_), fs::directory_iterator()));
    }

    scratch_directory scratch_;
    fs::path live_ = scratch_.path() / "live";
    fs::path recorded_ = scratch_.path() / "recorded";
    presentation p_;
    std::vector<track> tracks_;
    bool independent_ = true;
};

using names = std::vector<std::string>;

} // namespace

TEST_F(Recording, IsOfTheSegmentsBetweenTwoTimes)
{
    publish_many(3);
    // Half of segment 1 is before it, and half of segment 4 behind it.
    recording r = open(at(1) + length / 2, at(4) + length / 2);
    EXPECT_EQ(step(r), recording_state::going_on);
    publish();
    EXPECT_EQ(step(r), recording_state::going_on);
    publish_many(3);
    EXPECT_EQ(step(r), recording_state::complete);
    EXPECT_FALSE(fs::exists(recorded_ / "index.m3u8")) << "nothing shows before it is whole";
    close(r);
    EXPECT_EQ(text_of(recorded_ / "main.m3u8"),
              "#EXTM3U\n"
              "#EXT-X-VERSION:4\n"
              "#EXT-X-INDEPENDENT-SEGMENTS\n"
              "#EXT-X-TARGETDURATION:4\n"
              "#EXT-X-PLAYLIST-TYPE:VOD\n"
              "#EXT-X-START:TIME-OFFSET=2.000,PRECISE=YES\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:04.000Z\n"
              "#EXTINF:4.00000,\n"
              "main.1.ts\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:08.000Z\n"
              "#EXTINF:4.00000,\n"
              "main.2.ts\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:12.000Z\n"
              "#EXTINF:4.00000,\n"
              "main.3.ts\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:16.000Z\n"
              "#EXTINF:4.00000,\n"
              "main.4.ts\n"
              "#EXT-X-ENDLIST\n");
    EXPECT_EQ(recorded("main.sub-spa.m3u8"), (names{"main.sub-spa.1.vtt", "main.sub-spa.2.vtt",
                                                    "main.sub-spa.3.vtt", "main.sub-spa.4.vtt"}));
    EXPECT_EQ(text_of(recorded_ / "index.m3u8"), text_of(live_ / "index.m3u8"));
    EXPECT_EQ(files(), 3u + 8u);
}

TEST_F(Recording, LinksSegmentsSoThatTheyOutliveTheirList)
{
    publish();
    recording r = open();
    step(r);
    EXPECT_EQ(fs::hard_link_count(recorded_ / "main.0.ts"), 2u);
    fs::remove(live_ / "main.0.ts");
    close(r);
    EXPECT_EQ(text_of(recorded_ / "main.0.ts"), "main0");
}

TEST_F(Recording, BeginsWithTheNewestSegmentWhereNoTimeIsGiven)
{
    publish_many(4);
    recording r = open();
    step(r);
    publish();
    step(r);
    close(r);
    EXPECT_EQ(recorded(), (names{"main.3.ts", "main.4.ts"}));
    EXPECT_EQ(text_of(recorded_ / "main.m3u8").find("EXT-X-START"), std::string::npos);
}

TEST_F(Recording, WaitsForABeginningThatIsToCome)
{
    publish_many(2);
    recording r = open(at(3));
    EXPECT_EQ(step(r), recording_state::going_on);
    publish_many(3);
    EXPECT_EQ(step(r), recording_state::going_on);
    close(r);
    EXPECT_EQ(recorded(), (names{"main.3.ts", "main.4.ts"}));
}

TEST_F(Recording, IsCompleteWhereThePresentationEnds)
{
    publish_many(2);
    p_.ended = true;
    write_playlists();
    recording r = open(at(0));
    EXPECT_EQ(step(r), recording_state::complete);
    close(r);
    EXPECT_EQ(recorded().size(), 2u);
}

TEST_F(Recording, GoesOnWhereItWasKilled)
{
    publish_many(2);
    {
        recording r = open();
        step(r);
    }
    // In the middle of writing a line.
    std::ofstream(recorded_ / ".recording.main.m3u8", std::ios::app) << "#EXTINF:4.0";
    publish_many(2);
    recording r = open();
    step(r);
    close(r);
    EXPECT_EQ(recorded(), (names{"main.1.ts", "main.2.ts", "main.3.ts"}));
    EXPECT_EQ(text_of(recorded_ / "main.m3u8").find("DISCONTINUITY"), std::string::npos);
    EXPECT_EQ(files(), 3u + 6u);
}

TEST_F(Recording, MarksWhereSomethingIsMissing)
{
    publish_many(2);
    {
        recording r = open();
        step(r);
    }
    publish_many(7);
    recording r = open();
    step(r);
    close(r);
    const media_list list = parse_media_list(text_of(recorded_ / "main.m3u8"));
    ASSERT_EQ(list.segments.size(), 6u);
    EXPECT_EQ(list.segments[0].uri, "main.1.ts");
    EXPECT_EQ(list.segments[1].uri, "main.4.ts");
    EXPECT_TRUE(list.segments[1].discontinuity);
    EXPECT_FALSE(list.segments[2].discontinuity);
}

TEST_F(Recording, PassesOverASegmentThatIsGone)
{
    publish_many(3);
    fs::remove(live_ / "main.1.ts");
    recording r = open(at(0));
    step(r);
    close(r);
    const media_list list = parse_media_list(text_of(recorded_ / "main.m3u8"));
    ASSERT_EQ(list.segments.size(), 2u);
    EXPECT_TRUE(list.segments[1].discontinuity);
}

TEST_F(Recording, EndsWithTheFirstListWhereAnotherIsAhead)
{
    publish_many(2);
    const std::string behind = text_of(live_ / "main.m3u8");
    publish();
    write(live_ / "main.m3u8", behind); // its turn has not come yet
    recording r = open(at(0));
    step(r);
    EXPECT_TRUE(r.is_even());
    close(r);
    EXPECT_EQ(recorded().size(), 2u);
    EXPECT_EQ(recorded("main.sub-spa.m3u8").size(), 2u);
    EXPECT_EQ(files(), 3u + 4u);
}

TEST_F(Recording, KnowsThatAnotherListIsBehind)
{
    publish_many(2);
    const std::string behind = text_of(live_ / "main.sub-spa.m3u8");
    publish();
    write(live_ / "main.sub-spa.m3u8", behind);
    recording r = open(at(0));
    step(r);
    EXPECT_FALSE(r.is_even());
    write_playlists();
    step(r);
    EXPECT_TRUE(r.is_even());
}

TEST_F(Recording, SaysThatSegmentsAreIndependentOnlyWhereAllAre)
{
    publish_many(2);
    recording r = open(at(0));
    step(r);
    independent_ = false;
    publish();
    step(r);
    independent_ = true;
    publish_many(5);
    step(r);
    close(r);
    const std::string text = text_of(recorded_ / "main.m3u8");
    EXPECT_EQ(text.find("INDEPENDENT"), std::string::npos) << text;
    EXPECT_EQ(recorded().size(), 8u);
}

TEST_F(Recording, HasTheDateRangesOfItsTime)
{
    splice_cue cue = read_splices(sample_insert).at(0);
    const auto splice_at = [&](int64_t n) {
        cue.time = n * length;
        EXPECT_TRUE(take_splice(p_.ranges, cue, at(n), at(n - 1)));
    };
    splice_at(0); // lasts a minute: 15 segments
    publish_many(4);
    recording r = open(at(3), at(30));
    step(r);
    for (int n = 4; n < 40; n++) {
        if (n == 14 || n == 28)
            splice_at(n + 2);
        end_returned(p_.ranges, at(n));
        publish();
        drop_past(p_.ranges, p_.listed.front().date);
        write_playlists();
        step(r);
    }
    close(r);
    const std::string text = text_of(recorded_ / "main.m3u8");
    const auto ranges = parse_date_ranges(parse_media_list(text));
    ASSERT_EQ(ranges.size(), 2u) << text;
    EXPECT_EQ(ranges[0].start, at(0)) << "it had begun";
    EXPECT_LE(std::abs(ranges[0].end - at(0) - ranges[0].planned), pts_ticks_per_millisecond);
    EXPECT_EQ(ranges[1].start, at(16));
    EXPECT_EQ(
        text_of(recorded_ / "main.sub-spa.m3u8").find(text.substr(text.find("#EXT-X-DATE"), 60)),
        text_of(recorded_ / "main.sub-spa.m3u8").find("#EXT-X-DATE"));
}

TEST_F(Recording, HasNoDateRangeThatWasCancelledOrMoved)
{
    splice_cue cue = read_splices(sample_insert).at(0);
    const auto splice_at = [&](int64_t n, int64_t now) {
        cue.time = n * length;
        EXPECT_TRUE(take_splice(p_.ranges, cue, at(n), at(now)));
    };
    splice_at(10, 0);
    publish_many(3);
    recording r = open(at(0), at(20));
    step(r);
    splice_at(11, 3); // instead
    cue.event += '1';
    splice_at(12, 3);
    publish();
    step(r);
    cue.kind = splice_kind::cancel;
    splice_at(12, 4);
    publish_many(5);
    step(r);
    publish_many(5);
    step(r);
    close(r);
    const std::string text = text_of(recorded_ / "main.m3u8");
    const auto ranges = parse_date_ranges(parse_media_list(text));
    ASSERT_EQ(ranges.size(), 1u) << text;
    EXPECT_EQ(ranges[0].start, at(11));
}

TEST_F(Recording, IsBoundedWhateverDateRangesAreListed)
{
    publish_many(2);
    const std::string text = text_of(live_ / "main.m3u8");
    const std::string rest =
        "\",START-DATE=\"2026-11-21T12:00:00.000Z\",SCTE35-CMD=0x" + std::string(8000, 'F') + "\n";
    recording r = open(at(0));
    for (int n = 0; n < 3; n++) {
        std::string ranges;
        for (int i = 0; i < 400; i++)
            ranges += "#EXT-X-DATERANGE:ID=\"" + std::to_string(1000 * n + i) + rest;
        write(live_ / "main.m3u8", text + ranges);
        step(r);
    }
    EXPECT_LE(fs::file_size(recorded_ / ".recording.main.m3u8"), (size_t{4} << 20) + 1000);
    EXPECT_GE(fs::file_size(recorded_ / ".recording.main.m3u8"), (size_t{4} << 20) - 9000);
    close(r);
    EXPECT_EQ(recorded().size(), 2u);
}

TEST_F(Recording, NamesNoFileOfAnotherDirectory)
{
    write(live_ / "index.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nmain.m3u8\n"
                                "#EXT-X-STREAM-INF:BANDWIDTH=1\n../main.m3u8\n");
    write(scratch_.path() / "secret.ts", "secret");
    write(live_ / "main.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:4\n"
                               "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:00.000Z\n#EXTINF:4,\n"
                               "../secret.ts\n"
                               "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:04.000Z\n#EXTINF:4,\n"
                               ".index.m3u8.sqlite3\n"
                               "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T12:00:08.000Z\n#EXTINF:4,\n"
                               "20261121T12Z/secret.ts\n");
    write(live_ / ".index.m3u8.sqlite3", "state");
    fs::create_directory_symlink(scratch_.path(), live_ / "20261121T12Z");
    recording r = open(at(0));
    step(r);
    EXPECT_TRUE(fs::is_empty(recorded_) || !fs::exists(recorded_ / "secret.ts"));
    EXPECT_FALSE(fs::exists(recorded_ / "20261121T12Z/secret.ts"));
    std::string error;
    EXPECT_FALSE(r.close(error));
}

TEST_F(Recording, DoesNotWaitWhereSomethingElseStandsInPlaceOfAFile)
{
    publish_many(2);
    for (const char* name : {"main.m3u8", "main.sub-spa.0.vtt"}) {
        fs::remove(live_ / name);
        ASSERT_EQ(mkfifo((live_ / name).c_str(), 0600), 0);
    }
    recording r = open(at(0), at(2));
    EXPECT_EQ(step(r), recording_state::going_on);
}

TEST_F(Recording, SaysWhenThereIsNothingToRecord)
{
    recording r = open();
    std::string error;
    EXPECT_EQ(r.step(error), recording_state::failed);
    EXPECT_EQ(error, live_.string() + "/index.m3u8 names no playlist");
    EXPECT_FALSE(r.close(error));
    EXPECT_EQ(error, live_.string() + "/index.m3u8: nothing of that time is listed");
}

TEST_F(Recording, LeavesACompleteOneAlone)
{
    publish();
    recording r = open();
    step(r);
    close(r);
    std::string error;
    EXPECT_FALSE(recording({.from = live_, .to = recorded_}).open(error));
    EXPECT_NE(error.find("this recording is complete"), std::string::npos) << error;
}
