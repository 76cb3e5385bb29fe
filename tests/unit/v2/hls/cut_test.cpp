#include "v2/hls/cut.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/bundle_run.hpp"
#include "v2/base/text.hpp"

namespace
{

constexpr int64_t s = 90000; // ticks in a second

// A picture or an audio PES, and the fragment that is closed at it.
struct step {
    int64_t pts;
    bool is_keyframe;
    std::string closes; // the duration of its entry, or `unlisted`; empty: no cut
};

const std::string unlisted = "unlisted";

step key(int64_t pts, const std::string& closes = {})
{
    return {pts, true, closes};
}

step other(int64_t pts)
{
    return {pts, false, {}};
}

struct cut_case {
    std::string_view name;
    std::vector<step> steps;
    int32_t frag_duration = 4;
};

cmdopts with_duration(int32_t seconds)
{
    cmdopts opts;
    opts.frag_duration = seconds;
    return opts;
}

struct cut_run : bundle_run {
    using bundle_run::bundle_run;

    // What the step does to the main rendition, as `closes` says it.
    std::string video(const step& at)
    {
        return effect_of(at.pts, [&] { video_cut(at.pts, at.is_keyframe, pm, bundle, opts); });
    }
    std::string audio(const step& at)
    {
        return effect_of(at.pts, [&] { audio_cut(at.pts, pm, bundle); });
    }

private:
    template <class Action>
    std::string effect_of(int64_t pts, Action action)
    {
        const int64_t begin = pm.frag_start_pts;
        const auto& entries = bundle.main_out.m3u8.entries;
        const size_t before = entries.size();
        stderr_of(action);
        if (pm.frag_start_pts == begin)
            return {};
        EXPECT_EQ(pm.frag_start_pts, pts);
        EXPECT_TRUE(pm.output_started);
        return entries.size() == before ? unlisted : format_text("%.3f", entries.back().duration);
    }
};

void expect_cuts(std::string (cut_run::*of)(const step&), const std::vector<cut_case>& cases)
{
    for (const cut_case& c : cases) {
        SCOPED_TRACE(c.name);
        cut_run run(with_duration(c.frag_duration));
        for (const step& at : c.steps)
            EXPECT_EQ((run.*of)(at), at.closes) << at.pts;
    }
}

TEST(Cut, HappensAtTheFirstKeyframeBeyondTheDuration)
{
    expect_cuts(
        &cut_run::video,
        {
            {"keyframes every 2 s: the one exactly 4 s on does not cut",
             {key(10 * s, unlisted), key(12 * s), key(14 * s), key(16 * s, "6.000"), key(18 * s),
              key(20 * s), key(22 * s, "6.000"), key(24 * s)}},
            {"keyframes every 4 s",
             {key(10 * s, unlisted), key(14 * s), key(18 * s, "8.000"), key(22 * s),
              key(26 * s, "8.000")}},
            {"one tick beyond",
             {key(0, unlisted), key(4 * s + 1, "4.000"), key(8 * s + 1), key(8 * s + 2, "4.000")}},
            {"only keyframes cut",
             {key(10 * s, unlisted), other(15 * s), other(17 * s), key(18 * s, "8.000")}},
            {"the shortest duration",
             {key(10 * s, unlisted), key(11 * s), key(11 * s + 1, "1.000"), key(13 * s, "2.000")},
             1},
            {"the longest duration",
             {key(10 * s, unlisted), key(30 * s), key(31 * s, "21.000")},
             20},
            {"rounded up", {key(10 * s, unlisted), key(15 * s + 50, "5.001")}},   // 5.00056
            {"rounded down", {key(10 * s, unlisted), key(15 * s + 40, "5.000")}}, // 5.00044
        });
}

TEST(Cut, AStepBackOfMoreThanOneSecondCutsAtOnce)
{
    expect_cuts(
        &cut_run::video,
        {
            {"exactly one second back",
             {key(10 * s, unlisted), key(9 * s), key(14 * s + 1, "4.000")}},
            {"one tick more", {key(10 * s, unlisted), key(9 * s - 1, "4.000")}},
            {"the next cut is due 4 s after the old due time, 14 s",
             {key(10 * s, unlisted), key(8 * s, "4.000"), key(18 * s), key(18 * s + 1, "10.000")}},
            {"the duration is the nominal one",
             {key(1000 * s, unlisted), other(1003 * s), key(700 * s, "2.000")},
             2},
            {"of a picture that is no keyframe",
             {key(10 * s, unlisted), other(7 * s), key(11 * s)}},
        });
}

TEST(Cut, AJumpOfTenMinutesCutsWithTheTimeSeenBefore)
{
    const int64_t wrap = int64_t{1} << 33;
    expect_cuts(
        &cut_run::video,
        {
            {"one tick less than 600 s is measured from end to end, not by the steps seen",
             {key(10 * s, unlisted), other(12 * s), other(11 * s), key(610 * s - 1, "600.000")}},
            {"one tick less than 600 s back is a step back",
             {key(1000 * s, unlisted), other(1002 * s), key(400 * s + 1, "4.000")}},
            {"600 s back", {key(1000 * s, unlisted), other(1002 * s), key(400 * s, "2.000")}},
            {"700 s back", {key(1000 * s, unlisted), other(1002 * s), key(300 * s, "2.000")}},
            {"600 s",
             {key(10 * s, unlisted), other(11 * s), other(13 * s), key(610 * s, "3.000"),
              key(615 * s, "5.000")}},
            {"700 s", {key(10 * s, unlisted), other(12 * s), key(710 * s, "2.000")}},
            {"keyframes inside the fragment count too",
             {key(10 * s, unlisted), key(12 * s), key(14 * s), key(810 * s, "4.000")}},
            {"pictures behind the jump do not count",
             {key(10 * s, unlisted), other(11 * s), other(710 * s), other(711 * s),
              key(712 * s, "1.000")}},
            {"backward steps do not count",
             {key(10 * s, unlisted), other(12 * s), other(11 * s), other(13 * s),
              key(710 * s, "4.000")}},
            {"only what was seen since the last cut",
             {key(10 * s, unlisted), key(15 * s, "5.000"), other(16 * s), key(720 * s, "1.000")}},
            {"no time was seen before", {key(10 * s, unlisted), key(710 * s, unlisted)}},
            {"the wrap of the clock",
             {key(wrap - 5 * s, unlisted), key(wrap - 3 * s), key(wrap - s), key(s, "4.000"),
              key(3 * s), key(5 * s), key(7 * s, "6.000")}},
        });
}

TEST(Cut, TimeSeenBeforeTheFirstKeyframeCountsNearTheClocksStartOnly)
{
    expect_cuts(
        &cut_run::video,
        {
            {"below 600 s", {other(597 * s), other(600 * s - 2), key(600 * s, "3.000")}},
            {"one tick too far", {other(599 * s), other(600 * s - 1), key(600 * s, unlisted)}},
        });
}

TEST(Cut, OfAudioIsMeasuredByItsTimeStampsHoweverFarTheyJump)
{
    expect_cuts(
        &cut_run::audio,
        {
            {"every 2 s", {key(10 * s, unlisted), key(12 * s), key(14 * s), key(16 * s, "6.000")}},
            {"one tick beyond", {key(10 * s, unlisted), key(14 * s), key(14 * s + 1, "4.000")}},
            {"from zero", {key(0, unlisted), key(5 * s, "5.000")}},
            {"700 s on", {key(10 * s, unlisted), key(710 * s, "700.000")}},
            {"one second back", {key(10 * s, unlisted), key(9 * s)}},
            {"one tick more", {key(10 * s, unlisted), key(9 * s - 1, "4.000")}},
            {"the next cut is due 4 s after the old due time, 14 s",
             {key(10 * s, unlisted), key(8 * s, "4.000"), key(18 * s), key(18 * s + 1, "10.000")}},
            {"900 s back", {key(1000 * s, unlisted), key(100 * s, "4.000")}},
        });
}

TEST(Cut, AtTimeZeroOpensAWindowThatBeginsBeforeTheClock)
{
    cut_run run;
    EXPECT_EQ(run.video(key(0)), unlisted);
    EXPECT_EQ(run.pm.cut_window_start, -s);
    EXPECT_EQ(run.pm.cut_window_end, 4 * s);
}

TEST(Cut, OpensTheRenditionsThatHavePacketsUnderOneNumber)
{
    struct {
        bool separate_streams, sap;
        std::vector<std::string> want;
    } const cases[] = {
        {false, false, {"ch1.00000007.ts", "", ""}},
        {false, true, {"ch1.00000007.ts", "", ""}},
        {true, false, {"ch1.v.00000007.ts", "ch1.a.00000007.ts", ""}},
        {true, true, {"ch1.v.00000007.ts", "ch1.a.00000007.ts", "ch1.sap.00000007.ts"}},
    };
    for (const auto& c : cases) {
        cmdopts opts;
        opts.separate_streams = c.separate_streams;
        opts.sap = c.sap;
        cut_run run(opts);
        EXPECT_EQ(run.video(key(10 * s)), unlisted);
        run.bundle.main_out.next_seq = 7; // as after files that could not be opened
        EXPECT_EQ(run.video(key(15 * s)), "5.000");
        EXPECT_EQ((std::vector{run.bundle.main_out.frag_path, run.bundle.audio_out.frag_path,
                               run.bundle.sap_out.frag_path}),
                  c.want);
    }
}

TEST(Cut, TellsTheMasterPlaylistTheRateOfAFragmentThatIsLongAndLargeEnough)
{
    struct {
        std::string_view name;
        uint64_t bytes;
        int64_t ticks;
        uint64_t want;
        int32_t frag_duration = 1;
    } const cases[] = {
        {"2,000,000 bytes in 4 s", 2000000, 4 * s, 4000000},
        {"truncated", 1880, 7 * s, 2148}, // 15040 / 7 = 2148.57
        {"1023 bytes", 1023, 4 * s, 77},
        {"1024 bytes", 1024, 4 * s, 2048},
        {"just over 1 s", 1880, s + 1, 15039},
        {"1 s, of a step back", 1880, -5 * s, 77},
        {"2 s, of a step back", 1880, -5 * s, 7520, 2},
        {"not measured", 1880, 700 * s, 77},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        cut_run run(with_duration(c.frag_duration));
        HLSoutput& master = run.bundle.master_out;
        run.video(key(100 * s));
        run.bundle.main_out.frag_bytes = c.bytes;
        master.bandwidth = 77;
        master.master_dirty = false;
        run.pm.video_width = 1920;
        run.pm.video_height = 1080;
        run.video(key(100 * s + c.ticks));
        EXPECT_EQ(master.bandwidth, c.want);
        EXPECT_EQ(master.width, 1920u);
        EXPECT_EQ(master.height, 1080u);
        EXPECT_TRUE(master.master_dirty);
    }
}

TEST(Cut, OfAudioLeavesTheMasterPlaylistAloneAndOpensNothing)
{
    cut_run run;
    run.bundle.master_out.master_dirty = false;
    EXPECT_EQ(run.audio(key(10 * s)), unlisted);
    EXPECT_EQ(run.audio(key(15 * s)), "5.000");
    EXPECT_FALSE(run.bundle.master_out.master_dirty);
    EXPECT_EQ(run.bundle.main_out.opened_seq, -1);
}

} // namespace
