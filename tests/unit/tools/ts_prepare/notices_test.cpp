#include "tools/ts_prepare/notices.hpp"

#include <gtest/gtest.h>

namespace
{

using lines = std::vector<std::string>;

TEST(Notices, AreToldOnceInTenSecondsWithTheNumberOfThoseBetween)
{
    notice_board board;
    for (int second = 0; second <= 21; second++)
        tell(board, notice_kind::continuity, second * 1'000'000, "PID %d", second);
    EXPECT_EQ(board.lines,
              (lines{"vorn_ts_prepare: PID 0",
                     "vorn_ts_prepare: PID 10 (and 9 more since the last such line)",
                     "vorn_ts_prepare: PID 20 (and 9 more since the last such line)"}));
}

TEST(Notices, OfEachKindAreCountedAlone)
{
    notice_board board;
    tell(board, notice_kind::continuity, 5, "one");
    tell(board, notice_kind::clock, 6, "two");
    EXPECT_EQ(board.lines, (lines{"vorn_ts_prepare: one", "vorn_ts_prepare: two"}));
}

} // namespace
