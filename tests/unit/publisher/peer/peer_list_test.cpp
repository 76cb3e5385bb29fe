#include "publisher/peer/peer_list.hpp"

#include <gtest/gtest.h>

#include "publisher/text/listed_lines.hpp"
#include "publisher/text/playlist_text.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t noon = int64_t{1795262400} * second;

// Segments of 6 s, with a discontinuity before each tenth.
presentation listing(uint64_t first, uint64_t last)
{
    presentation p;
    p.target_duration = 8;
    p.next_sequence = last + 1;
    for (uint64_t number = first; number <= last; number++) {
        p.listed.push_back({
            .sequence = number,
            .discontinuity_number = number / 10,
            .discontinuity = number % 10 == 0,
            .duration = 6 * second + 17,
            .date = noon + static_cast<int64_t>(number) * (6 * second + 17),
            .files = {{.track = "main", .bytes = 1000}},
        });
    }
    return p;
}

std::string text_of(const presentation& p)
{
    listed_lines lines = media_playlist_lines("main");
    lines.follow(p);
    return media_playlist_text(p, lines);
}

std::string difference_to(const presentation& ours, std::string theirs,
                          const std::string& from = "", const std::string& to = "")
{
    if (!from.empty()) {
        const size_t at = theirs.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        theirs.replace(at, from.size(), to);
    }
    return difference(ours, "main", parse_media_list(theirs));
}

} // namespace

TEST(PeerList, DiffersNotWhereBothListTheSameSegmentsAlike)
{
    const presentation ours = listing(105, 125);
    EXPECT_EQ(difference_to(ours, text_of(ours)), "");
    EXPECT_EQ(difference_to(ours, text_of(listing(100, 124))), "");
    EXPECT_EQ(difference_to(ours, text_of(listing(110, 126))), "");
    EXPECT_EQ(difference_to(ours, text_of(listing(125, 180))), "");
    EXPECT_EQ(difference_to(listing(1, 0), text_of(ours)), "") << "nothing is published yet";
}

TEST(PeerList, DiffersInWhatItSaysOfASegment)
{
    const presentation ours = listing(105, 125);
    const std::string theirs = text_of(ours);
    EXPECT_EQ(difference_to(ours, theirs, "main.117.ts", "other.117.ts"),
              "segment 117: it is other.117.ts there and main.117.ts here");
    EXPECT_EQ(difference_to(ours, theirs, "6.00019,\nmain.117", "6.04019,\nmain.117"),
              "segment 117: it lasts 6.04019 s there and 6.00019 s here");
    const std::string date = date_text(ours.listed[12].date);
    EXPECT_EQ(difference_to(ours, theirs, date, "2026-11-21T00:00:00.000Z"),
              "segment 117: its date is 2026-11-21T00:00:00.000Z there and " + date + " here");
}

// A date that was taken up has lost what a list does not tell; a last GOP is a tick off.
TEST(PeerList, DiffersNotInWhatNobodyNotices)
{
    presentation ours = listing(105, 125);
    const std::string theirs = text_of(ours);
    for (segment& s : ours.listed)
        s.date -= 89;
    EXPECT_EQ(difference_to(ours, theirs), "");
    EXPECT_EQ(difference_to(ours, theirs, "6.00019,\nmain.117", "6.00020,\nmain.117"), "");
}

TEST(PeerList, DiffersInItsDiscontinuities)
{
    const presentation ours = listing(105, 125);
    const std::string theirs = text_of(ours);
    EXPECT_EQ(difference_to(ours, theirs, "#EXT-X-DISCONTINUITY\n", ""),
              "segment 125: 11 discontinuities lead to it there and 12 here");
    EXPECT_EQ(difference_to(ours, theirs, "DISCONTINUITY-SEQUENCE:10", "DISCONTINUITY-SEQUENCE:11"),
              "segment 125: 13 discontinuities lead to it there and 12 here");
}

TEST(PeerList, DiffersWhereNumbersHaveNothingInCommon)
{
    EXPECT_EQ(difference_to(listing(105, 125), text_of(listing(127, 130))),
              "segments 127 to 130 there and 105 to 125 here have none in common");
    EXPECT_EQ(difference_to(listing(105, 125), text_of(listing(90, 103))),
              "segments 90 to 103 there and 105 to 125 here have none in common");
}

// One of the two is ahead by some milliseconds.
TEST(PeerList, DiffersNotWhereOneGoesOnBehindTheOther)
{
    EXPECT_EQ(difference_to(listing(105, 125), text_of(listing(126, 130))), "");
    EXPECT_EQ(difference_to(listing(105, 125), text_of(listing(90, 104))), "");
}

// It goes on behind the other, which has gone on meanwhile.
TEST(PeerList, DiffersNotFromWhatIsListedFromBeforeATimeAway)
{
    presentation ours = listing(105, 125);
    ours.next_sequence = 301;
    EXPECT_EQ(difference_to(ours, text_of(listing(300, 310))), "");
}

TEST(PeerList, DiffersInItsTargetDuration)
{
    EXPECT_EQ(
        difference_to(listing(105, 125), text_of(listing(105, 125)), "DURATION:8", "DURATION:9"),
        "its target duration is 9 s there and 8 s here");
}

TEST(PeerList, IsThatOfAPublisher)
{
    const std::string list = text_of(listing(105, 125));
    std::string error;
    EXPECT_TRUE(read_peer_list(list, error));
    EXPECT_EQ(error, "");
    for (const std::string& other :
         {std::string(), std::string("<html>\n"), list.substr(1), std::string("#EXTM3U\n"),
          std::string("#EXTM3U\n#EXT-X-TARGETDURATION:0\n#EXTINF:6,\nmain.1.ts\n"),
          list + "#EXTINF:6,\n\x1b[2J.ts\n", list + "#EXTINF:6,\n" + std::string(256, 'a') + '\n',
          list + std::string(size_t{2} << 20, '\n')}) {
        EXPECT_FALSE(read_peer_list(other, error));
        EXPECT_EQ(error, "its list is not one of a publisher");
    }
}

TEST(PeerList, TellsTheNewestOfItsDateRanges)
{
    std::string list = text_of(listing(105, 125));
    for (int i = 0; i < 2000; i++)
        list += "#EXT-X-DATERANGE:ID=\"" + std::to_string(i) + "\"\n";
    std::string error;
    const auto read = read_peer_list(list, error);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->date_ranges.size(), 500u);
    EXPECT_EQ(read->date_ranges.back().text, "#EXT-X-DATERANGE:ID=\"1999\"\n");
}

TEST(PeerList, MaySayAnything)
{
    const presentation ours = listing(105, 125);
    EXPECT_EQ(difference_to(ours, ""), "");
    EXPECT_NE(difference_to(ours, "#EXT-X-MEDIA-SEQUENCE:18446744073709551615\n#EXTINF:6,\na\nb\n"),
              "");
    EXPECT_NE(difference_to(ours, "#EXTINF:1e300,\na\n"), "");
}
