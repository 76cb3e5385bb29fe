#include "publisher/text/listed_lines.hpp"

#include <gtest/gtest.h>

#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

// A history with discontinuities, a rung that comes and goes, segments without keyframes, and lists
// of any length.
class History
{
public:
    History() { p_.target_duration = 6; }

    void add_segment()
    {
        const bool discontinuity = next_ % 11 == 3;
        p_.discontinuities += discontinuity ? 1 : 0;
        segment s{
            .sequence = 500 + next_,
            .discontinuity_number = p_.discontinuities,
            .discontinuity = discontinuity,
            .independent = next_ % 30 != 7,
            .duration = 6 * pts_ticks_per_second,
            .date = static_cast<int64_t>(next_) * 6 * pts_ticks_per_second,
            .files = {{.track = "main", .bytes = 1, .first_keyframe = 1 + keyframes_}},
        };
        for (uint64_t i = next_ % 4; i > 1; i--) {
            s.files[0].keyframes.push_back({.begin = 376 * i, .bytes = 188, .at = 0});
            keyframes_++;
        }
        if (next_ % 20 > 4)
            s.files.push_back({.track = "low", .bytes = 1});
        p_.listed.push_back(std::move(s));
        next_++;
    }

    void remove_segments(size_t count)
    {
        for (; count > 0 && p_.listed.size() > 1; count--)
            p_.listed.pop_front();
    }

    presentation p_;

private:
    uint64_t next_ = 0;
    uint64_t keyframes_ = 0;
};

} // namespace

TEST(ListedLines, FollowedStepByStepAreThoseWrittenAtOnce)
{
    History history;
    listed_lines main = media_playlist_lines("main");
    listed_lines low = media_playlist_lines("low");
    listed_lines iframes = iframe_playlist_lines("main");
    for (size_t step = 0; step < 400; step++) {
        SCOPED_TRACE(step);
        for (size_t i = 0; i < step % 3; i++) // none, one or two, which are published together
            history.add_segment();
        history.remove_segments(step % 50 == 49 ? 30 : step % 4 / 2);
        const presentation& p = history.p_;
        main.follow(p);
        low.follow(p);
        iframes.follow(p);
        ASSERT_EQ(media_playlist_text(p, main), whole_media_playlist(p, "main"));
        ASSERT_EQ(media_playlist_text(p, low), whole_media_playlist(p, "low"));
        ASSERT_EQ(iframe_playlist_text(p, iframes), whole_iframe_playlist(p, "main"));
        ASSERT_EQ(main.count(), p.listed.size());
        ASSERT_EQ(low.count(), segments_of(p, "low").size());
    }
}

TEST(ListedLines, BeginAnewBehindAListThatWasLost)
{
    History history;
    history.add_segment();
    listed_lines lines = media_playlist_lines("main");
    lines.follow(history.p_);
    history.p_.listed.clear();
    history.add_segment();
    history.add_segment();
    lines.follow(history.p_);
    EXPECT_EQ(lines.count(), 2u);
    EXPECT_EQ(media_playlist_text(history.p_, lines), whole_media_playlist(history.p_, "main"));
}
