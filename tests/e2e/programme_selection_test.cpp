// What a run does when the PMT of its programme changes, or has nothing to follow.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

TEST(ProgrammeSelection, APmtWithoutStreamsCountsAsThePmt)
{
    stream_builder stream;
    stream.pmt.streams.clear();
    stream.start_up();
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         {.ending = "exit 1",
                          .standard_error = programme_lines({.audio_pid = 0, .video_pid = 0}) +
                                            "Not enough to HLS chop by\n",
                          .files = {{"ch1.m3u8", master_playlist({})}}}));
}

// A PMT is handled when the next one begins, so the change takes effect there.
TEST(ProgrammeSelection, AChangedPmtMovesTheFollowedVideoAtOnce)
{
    stream_builder stream;
    stream.start_up();
    const size_t first = stream.mark();
    stream.keyframe(900000);
    stream.pmt.streams.front().pid = 0x201;
    stream.tables(2);
    stream.keyframe(1800000); // on the old PID
    const size_t second = stream.mark();
    stream.pes(0x201, {.pts = 2700000, .payload = h264_keyframe({.width = 640, .height = 480}, 9)});
    stream.tables().null(1);
    EXPECT_TRUE(
        same_run(run_on(stream.bytes()),
                 expected_default_run(stream, {.starts = {first, second},
                                               .durations = {"20.000"},
                                               .master = {.bandwidth = (second - first) * 8 / 20,
                                                          .resolution = "640x480"}})));
}

TEST(ProgrammeSelection, AnUndecodablePmtUnfollowsAllUntilTheNextGoodOne)
{
    stream_builder stream;
    stream.start_up();
    const size_t first = stream.mark();
    stream.keyframe(900000);
    const pmt_fields good = stream.pmt;
    stream.pmt.left_over = {0x1B};
    stream.tables(2);
    stream.keyframe(1800000); // nobody looks at it
    stream.pmt = good;
    stream.tables(2);
    const size_t second = stream.mark();
    stream.keyframe(2700000);
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         expected_default_run(stream, {.starts = {first, second},
                                                       .durations = {"20.000"},
                                                       .master = {.resolution = "320x240"}})));
}

} // namespace
