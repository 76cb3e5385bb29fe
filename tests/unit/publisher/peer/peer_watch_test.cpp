#include "publisher/peer/peer_watch.hpp"

#include <gtest/gtest.h>
#include <poll.h>

#include "tests/support/scripted_server.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t target_ms = 8000;

// Segments of 6 s.
presentation listing(uint64_t first, uint64_t last)
{
    presentation p;
    p.target_duration = target_ms / 1000;
    p.next_sequence = last + 1;
    for (uint64_t number = first; number <= last; number++)
        p.listed.push_back({.sequence = number,
                            .duration = 6 * pts_ticks_per_second,
                            .date = static_cast<int64_t>(number) * 6 * pts_ticks_per_second,
                            .files = {{.track = "main", .bytes = 1000}}});
    return p;
}

// Another publisher, as the test scripts it. Time passes by a target duration with each look.
class PeerWatch : public testing::Test
{
protected:
    PeerWatch()
    {
        settings_.segment = 6;
        settings_.target_duration = target_ms / 1000;
        settings_.peers = {server_.url() + "/ch1"};
        settings_.renditions.emplace_back().name = "main";
        watch_ = std::make_unique<peer_watch>(settings_, client_);
    }

    void offer(const presentation& theirs, const std::string& headers = "")
    {
        server_.set_body("/ch1/main.m3u8", whole_media_playlist(theirs, "main"), headers);
    }

    void look(const presentation& ours)
    {
        now_ms_ += target_ms;
        watch_->look(ours, now_ms_);
        do {
            pollfd polled{.fd = client_.fd(), .events = POLLIN, .revents = 0};
            poll(&polled, 1, static_cast<int>(client_.wait_ms()));
        } while (!client_.serve());
        watch_->look(ours, now_ms_);
    }

    // Whether a peer whose list was that at the last look has more than we with ours.
    bool have_more(const presentation& theirs, const presentation& ours)
    {
        offer(theirs);
        look({});
        return watch_->have_more(ours);
    }

    [[nodiscard]] peer_watch::peer_report report() const { return watch_->report().at(0); }

    scripted_server server_;
    publisher_settings settings_;
    http_client client_;
    std::unique_ptr<peer_watch> watch_;
    int64_t now_ms_ = 100000;
};

} // namespace

TEST_F(PeerWatch, KnowsThatAPeerHasMoreThanAShortList)
{
    EXPECT_TRUE(have_more(listing(90, 105), listing(105, 107)));
    EXPECT_FALSE(have_more(listing(90, 105), listing(105, 108))) << "it has three target durations";
    EXPECT_FALSE(have_more(listing(105, 109), listing(105, 107)));
    EXPECT_FALSE(have_more(listing(90, 105), listing(1, 0)));
}

// Behind an outage a publisher may be ahead of what it knows of the other.
TEST_F(PeerWatch, WaitsForASecondSegmentUntilItIsKnownWhetherAPeerHasMore)
{
    EXPECT_TRUE(have_more(listing(90, 103), listing(105, 105)));
    EXPECT_FALSE(have_more(listing(90, 103), listing(105, 106))) << "it missed the same";
    EXPECT_FALSE(have_more(listing(110, 113), listing(105, 105)));
}

TEST_F(PeerWatch, AsksSoonerWhileTheListHasItsFirstSegmentAlone)
{
    EXPECT_EQ(watch_->look_again_ms(listing(90, 105), now_ms_), 0);
    offer(listing(90, 105));
    look(listing(90, 105));
    EXPECT_EQ(watch_->look_again_ms(listing(90, 105), now_ms_ + 100), target_ms - 100);
    EXPECT_EQ(watch_->look_again_ms(listing(105, 105), now_ms_ + 100), 400);
    EXPECT_EQ(watch_->look_again_ms(listing(105, 105), now_ms_ + 1000), 0);
}

TEST_F(PeerWatch, KnowsThatAPeerIsAheadByMoreThanTwoSegments)
{
    offer(listing(90, 105));
    look({});
    EXPECT_FALSE(watch_->are_ahead(listing(90, 103)));
    EXPECT_TRUE(watch_->are_ahead(listing(90, 102)));
}

// The clocks of the two machines need not agree.
TEST_F(PeerWatch, TakesAListThatHasStoodForLongForThatOfAPublisherThatHasEnded)
{
    const std::string written = "Last-Modified: Sun, 22 Nov 1970 08:00:00 GMT\r\n";
    offer(listing(90, 105), written + "Date: Sun, 22 Nov 1970 08:00:24 GMT\r\n");
    look(listing(90, 105));
    EXPECT_TRUE(report().up);
    offer(listing(90, 106), written + "Date: Sun, 22 Nov 1970 08:00:25 GMT\r\n");
    look(listing(90, 105));
    EXPECT_FALSE(report().up);
    EXPECT_FALSE(watch_->have(90));
    EXPECT_EQ(
        watch_->take_lines(),
        (std::vector<std::string>{
            server_.url() + "/ch1: its list stands still; it cannot stand in for this publisher"}));
}

TEST_F(PeerWatch, FetchesAListOnlyWhereItIsAnotherOne)
{
    offer(listing(90, 105), "ETag: \"105\"\r\n");
    look(listing(90, 105));
    server_.set("/ch1/main.m3u8", "HTTP/1.1 304 Not Modified\r\n\r\n");
    look(listing(90, 106));
    EXPECT_NE(server_.requests().back().find("If-None-Match: \"105\"\r\n"), std::string::npos);
    EXPECT_TRUE(report().up);
    look(listing(107, 108));
    EXPECT_NE(report().difference, "") << "the same list is held against what is published now";
    look(listing(90, 105));
    EXPECT_TRUE(report().up);
    look(listing(90, 105));
    EXPECT_FALSE(report().up) << "it stands still";
}
