#include "publisher/peer/peer_start.hpp"

#include <gtest/gtest.h>

#include "tests/support/scripted_server.hpp"
#include "tests/support/stream_builder.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t slot = 6 * second;
constexpr int64_t noon = int64_t{1795262400} * second;

// A splice_insert of ANSI/SCTE 35, 14.
constexpr const char* insert = "0xFC302F000000000000FFFFF014054800008F7FEFFE7369C02EFE0052CCF500000"
                               "000000A0008435545490000013562DBA30A";

// Segments of 6 s with the dates of their numbers.
presentation listing(uint64_t first, uint64_t last)
{
    presentation p;
    p.target_duration = 8;
    p.discontinuities = 7;
    for (uint64_t number = first; number <= last; number++)
        p.listed.push_back({.sequence = number,
                            .discontinuity_number = 7,
                            .duration = slot,
                            .date = static_cast<int64_t>(number) * slot,
                            .files = {{.track = "main", .bytes = 1000}}});
    return p;
}

// Other publishers, as the test scripts them.
class PeerStart : public testing::Test
{
protected:
    // Its list has stood since 08:00:00.
    void offer(const std::string& peer, const presentation& theirs,
               const std::string& time = "08:00:00")
    {
        settings_.peers.push_back(server_.url() + peer);
        server_.set_body(peer + "/main.m3u8", whole_media_playlist(theirs, "main"),
                         "Last-Modified: Sun, 22 Nov 2026 08:00:00 GMT\r\n"
                         "Date: Sun, 22 Nov 2026 " +
                             time + " GMT\r\n");
    }

    std::vector<std::string> ask()
    {
        std::vector<std::string> urls;
        answers_ = ask_peers(client_, settings_, lines_);
        for (const peer_answer& answer : answers_)
            urls.push_back(answer.url.substr(server_.url().size()));
        return urls;
    }

    static publisher_settings settings()
    {
        publisher_settings s;
        s.segment = 6;
        s.target_duration = 8;
        s.renditions.emplace_back().name = "main";
        return s;
    }

    scripted_server server_;
    http_client client_;
    publisher_settings settings_ = settings();
    std::vector<peer_answer> answers_;
    std::vector<std::string> lines_;
};

using peers = std::vector<std::string>;

} // namespace

TEST_F(PeerStart, GoesByThePeerThatHasComeFurthestOfThoseThatAreLive)
{
    offer("/a", listing(90, 103));
    offer("/b", listing(100, 105), "08:00:24");
    offer("/gone", listing(90, 110), "08:00:25");
    offer("/c", listing(95, 104));
    EXPECT_EQ(ask(), (peers{"/b", "/c", "/a", "/gone"}));
    EXPECT_EQ(lines_, peers{});
}

TEST_F(PeerStart, TellsOfPeersThatAnswerNothingUseful)
{
    settings_.peers = {server_.url() + "/none", server_.url() + "/other", server_.url() + "/empty"};
    server_.set_body("/other/main.m3u8", "<html>\n");
    server_.set_body("/empty/main.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:8\n");
    EXPECT_EQ(ask(), peers{});
    const std::string end = "; it is not known whether both publish the same";
    EXPECT_EQ(lines_, (peers{server_.url() + "/none: status 404" + end,
                             server_.url() + "/other: its list is not one of a publisher" + end,
                             server_.url() + "/empty: it lists nothing" + end}));
}

// A list of a day has all numbers that were missed.
TEST_F(PeerStart, NeedsAPeerBehindAJumpThatOnlyItHasSeen)
{
    media_list list;
    list.sequence = 100;
    list.segments.resize(20);
    list.segments[10].discontinuity = true;
    EXPECT_TRUE(is_needed(list, 0)) << "nothing is published yet";
    EXPECT_TRUE(is_needed(list, 99));
    EXPECT_TRUE(is_needed(list, 100));
    EXPECT_TRUE(is_needed(list, 110));
    EXPECT_FALSE(is_needed(list, 111)) << "it is published here too";
    EXPECT_FALSE(is_needed(list, 120));
    EXPECT_FALSE(is_needed(list, 1000));
}

TEST_F(PeerStart, NeedsAPeerWhichHasNoDiscontinuityWhereTheStreamDoesNotGoOn)
{
    media_list list;
    list.sequence = 100;
    list.segments.resize(20);
    list.segments[10].discontinuity = true;
    EXPECT_TRUE(goes_on_there(list, 99));
    EXPECT_TRUE(goes_on_there(list, 109));
    EXPECT_FALSE(goes_on_there(list, 110)) << "it has seen the same";
    EXPECT_TRUE(goes_on_there(list, 119));
    EXPECT_FALSE(goes_on_there(list, 120)) << "it has not come to it yet";
}

// Numbers never fall.
TEST_F(PeerStart, GoesOnBehindASegmentThatIsNotPublishedHere)
{
    offer("/a", listing(100, 105));
    ASSERT_EQ(ask(), peers{"/a"});
    stream_builder stream;
    stream.tables().keyframe(1000 * second);
    server_.set_body("/a/main.103.ts", std::string(stream.bytes().begin(), stream.bytes().end()));
    std::string error;
    const auto place = ask_for_place(client_, settings_, answers_[0], 103, noon, error);
    ASSERT_TRUE(place) << error;
    EXPECT_EQ(place->next_sequence, 104u);
    EXPECT_EQ(place->discontinuities, 7u);
    EXPECT_FALSE(ask_for_place(client_, settings_, answers_[0], 106, noon, error));
}

// Since then the clock has run on.
TEST_F(PeerStart, KnowsWhenASegmentOfAListThatStandsStillCame)
{
    presentation theirs = listing(noon / slot, noon / slot + 9);
    theirs.listed[4].discontinuity = true;
    theirs.discontinuities = theirs.listed[4].discontinuity_number = 8;
    const int64_t date = theirs.listed[6].date;
    const splice_cue splice{
        .kind = splice_kind::out, .event = "insert-1207959695", .section = insert};
    ASSERT_TRUE(take_splice(theirs.ranges, splice, date, date));
    offer("/gone", theirs, "08:05:00");
    stream_builder stream;
    stream.tables().keyframe(1000 * second);
    server_.set_body("/gone/" + segment_file_name("main", theirs.listed[4]),
                     std::string(stream.bytes().begin(), stream.bytes().end()));
    ASSERT_EQ(ask(), peers{"/gone"});
    std::string error;
    const auto place =
        ask_for_place(client_, settings_, answers_[0], 0, noon + 3600 * second, error);
    ASSERT_TRUE(place) << error;
    EXPECT_EQ(place->next_sequence, theirs.listed[5].sequence);
    EXPECT_EQ(place->discontinuities, 8u);
    EXPECT_EQ(place->line.clock, 1006 * second);
    EXPECT_EQ(place->line.date, theirs.listed[5].date);
    EXPECT_EQ(place->line.arrival, noon + (3600 - 300 - 5 * 6) * second);
    EXPECT_EQ(place->line.stream / slot, static_cast<int64_t>(place->next_sequence));
    ASSERT_EQ(place->line.ranges.size(), 1u);
    EXPECT_EQ(place->line.ranges[0].start, date);
}

TEST_F(PeerStart, TakesUpNothingOfASegmentThatIsNotThereOrHasNoPicture)
{
    const presentation theirs = listing(100, 105);
    offer("/a", theirs);
    ASSERT_EQ(ask(), peers{"/a"});
    std::string error;
    EXPECT_FALSE(ask_for_place(client_, settings_, answers_[0], 0, noon, error));
    EXPECT_EQ(error, "status 404");
    server_.set_body("/a/main.100.ts", std::string(188, 'x'));
    EXPECT_FALSE(ask_for_place(client_, settings_, answers_[0], 0, noon, error));
    EXPECT_EQ(error, "main.100.ts has no picture");
}
