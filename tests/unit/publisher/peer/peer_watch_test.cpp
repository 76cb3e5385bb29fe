#include "publisher/peer/peer_watch.hpp"

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr const char* url = "http://127.0.0.1:1/channel";

publisher_settings settings()
{
    publisher_settings s;
    s.segment = 6;
    s.target_duration = 8;
    s.peers = {url};
    s.renditions.emplace_back().name = "main";
    return s;
}

// Segments of 6 s.
presentation listing(uint64_t first, uint64_t last)
{
    presentation p;
    p.target_duration = 8;
    for (uint64_t number = first; number <= last; number++)
        p.listed.push_back({.sequence = number, .duration = 6 * pts_ticks_per_second, .files = {}});
    return p;
}

media_list list(uint64_t first, uint64_t last)
{
    media_list of;
    of.target_duration = 8;
    of.sequence = first;
    of.segments.resize(last - first + 1);
    return of;
}

// Whether a peer whose list was that at the last look has more than we with ours.
bool has_more(const media_list& theirs, const presentation& ours)
{
    const publisher_settings s = settings();
    http_client client;
    peer_watch watch(s, client);
    watch.begin_with(url, theirs);
    return watch.have_more(ours);
}

} // namespace

TEST(PeerWatch, KnowsThatAPeerHasMoreThanAShortList)
{
    EXPECT_TRUE(has_more(list(90, 105), listing(105, 107)));
    EXPECT_FALSE(has_more(list(90, 105), listing(105, 108))) << "it has three target durations";
    EXPECT_FALSE(has_more(list(105, 109), listing(105, 107)));
    EXPECT_FALSE(has_more(list(90, 105), listing(1, 0)));
}

// Behind an outage a publisher may be ahead of what it knows of the other.
TEST(PeerWatch, WaitsForASecondSegmentUntilItIsKnownWhetherAPeerHasMore)
{
    EXPECT_TRUE(has_more(list(90, 103), listing(105, 105)));
    EXPECT_FALSE(has_more(list(90, 103), listing(105, 106))) << "it missed the same";
    EXPECT_FALSE(has_more(list(110, 113), listing(105, 105)));
}
