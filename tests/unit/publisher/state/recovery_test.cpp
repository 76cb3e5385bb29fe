#include "publisher/state/recovery.hpp"

#include <chrono>
#include <filesystem>

#include <gtest/gtest.h>

#include "publisher/base/clock.hpp"
#include "tests/support/scratch_directory.hpp"
#include "tests/support/stream_builder.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

void write_list(const scratch_directory& scratch, const std::string& rung, uint64_t first,
                uint64_t behind, bool independent = true)
{
    presentation p;
    p.target_duration = 6;
    for (uint64_t number = first; number < behind; number++) {
        p.listed.push_back(
            {.sequence = number,
             .independent = independent,
             .duration = 6 * pts_ticks_per_second,
             .date = static_cast<int64_t>(1795262400 + number * 6) * pts_ticks_per_second,
             .files = {{.track = rung, .bytes = 1000}}});
    }
    write_file(scratch.path() / media_playlist_name(rung), bytes_of(whole_media_playlist(p, rung)));
}

stored_state recovered(const scratch_directory& scratch, const std::vector<std::string>& rungs)
{
    output_directory output;
    std::string error;
    EXPECT_TRUE(output.open(scratch.path(), error)) << error;
    stored_state state;
    int64_t target_found = 0;
    EXPECT_EQ(recover_state(output, rungs, 6, state, target_found), recovery::recovered);
    return state;
}

} // namespace

// The list of a rung that was away begins when it came back.
TEST(Recovery, TakesUpAllThatAnyRungListsToTheEnd)
{
    const scratch_directory scratch;
    write_list(scratch, "high", 90, 100);
    write_list(scratch, "low", 10, 100);
    write_list(scratch, "gone", 1, 40);
    const stored_state state = recovered(scratch, {"high", "low", "gone"});
    EXPECT_EQ(state.listed.front().sequence, 10u);
    EXPECT_EQ(state.head.next_sequence, 100u);
}

TEST(Recovery, TakesUpTheListsOfAProcessThatWasKilledWhileItReplacedThem)
{
    const scratch_directory scratch;
    write_list(scratch, "high", 90, 101);
    write_list(scratch, "low", 10, 100);
    const stored_state state = recovered(scratch, {"high", "low"});
    EXPECT_EQ(state.listed.front().sequence, 10u);
    EXPECT_EQ(state.listed.size(), 91u);
    EXPECT_EQ(state.listed.back().sequence, 100u);
    EXPECT_EQ(state.head.next_sequence, 101u);
}

TEST(Recovery, KnowsFromTheListsWhetherSegmentsAreIndependent)
{
    const scratch_directory scratch;
    write_list(scratch, "high", 10, 100);
    write_list(scratch, "gone", 1, 40, false);
    EXPECT_TRUE(recovered(scratch, {"high", "gone"}).listed.front().independent);
    EXPECT_TRUE(recovered(scratch, {"high", "gone"}).master.independent);
    write_list(scratch, "low", 10, 100, false);
    EXPECT_FALSE(recovered(scratch, {"high", "low"}).listed.front().independent);
    EXPECT_FALSE(recovered(scratch, {"high", "low"}).master.independent);
}

// A power cut has taken the newest segment.
TEST(Recovery, KnowsWhenTheNewestSegmentCame)
{
    const scratch_directory scratch;
    write_list(scratch, "main", 10, 14);
    stream_builder stream;
    stream.tables().keyframe(900000);
    write_file(scratch.path() / "main.12.ts", stream.bytes());
    const auto modified = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    std::filesystem::last_write_time(scratch.path() / "main.12.ts", modified);
    const timeline line = recovered(scratch, {"main"}).head.line;
    EXPECT_EQ(line.clock, 900000 + 12 * pts_ticks_per_second);
    const int64_t ago_ms = unix_ms() - line.arrival / pts_ticks_per_millisecond;
    EXPECT_NEAR(static_cast<double>(ago_ms), 3600'000 - 6000, 60'000);
}
