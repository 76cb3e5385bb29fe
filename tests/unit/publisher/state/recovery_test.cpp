#include "publisher/state/recovery.hpp"

#include <gtest/gtest.h>

#include "tests/support/scratch_directory.hpp"
#include "tests/support/whole_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

void write_list(const scratch_directory& scratch, const std::string& rung, uint64_t first,
                uint64_t behind)
{
    presentation p;
    p.target_duration = 6;
    for (uint64_t number = first; number < behind; number++) {
        p.listed.push_back(
            {.sequence = number,
             .duration = 6 * pts_ticks_per_second,
             .date = static_cast<int64_t>(1795262400 + number * 6) * pts_ticks_per_second,
             .files = {{.track = rung, .bytes = 1000}}});
    }
    write_file(scratch.path() / media_playlist_name(rung), bytes_of(whole_media_playlist(p, rung)));
}

} // namespace

// The list of a rung that was away begins when it came back.
TEST(Recovery, TakesUpAllThatAnyRungListsToTheEnd)
{
    const scratch_directory scratch;
    write_list(scratch, "high", 90, 100);
    write_list(scratch, "low", 10, 100);
    write_list(scratch, "gone", 1, 40);
    output_directory output;
    std::string error;
    ASSERT_TRUE(output.open(scratch.path(), error)) << error;
    stored_state state;
    int64_t target_found = 0;
    ASSERT_EQ(recover_state(output, {"high", "low", "gone"}, 6, state, target_found),
              recovery::recovered);
    EXPECT_EQ(state.listed.front().sequence, 10u);
    EXPECT_EQ(state.head.next_sequence, 100u);
}
