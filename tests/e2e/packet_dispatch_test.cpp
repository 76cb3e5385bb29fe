// Which packets reach a fragment.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

TEST(PacketDispatch, WritesAllPacketsFromTheFirstKeyframeOnAsTheyAre)
{
    stream_builder stream;
    stream.start_up();
    stream.tables().audio(890000).null(2).packet({.pid = 0x11});
    const size_t begin = stream.mark();
    stream.keyframe(900000).audio(900000).null(2).packet({.pid = 0x0201});
    stream.packet({.transport_error_indicator = true, .pid = 0x101});
    EXPECT_TRUE(
        same_run(run_on(stream.bytes()), expected_default_run(stream, {.starts = {begin}})));
}

// A programme whose PMT is handled in the middle of the start-up fill: the packets behind it are
// processed by the next pass, none is lost.
TEST(PacketDispatch, APassThatATableEndsLosesNoPacket)
{
    stream_builder stream;
    stream.tables(3);
    const size_t begin = stream.mark();
    stream.keyframe(900000).tables(2).audio(900000).tables(3).picture(903600);
    stream.null_until(start_up_fill_bytes);
    EXPECT_TRUE(same_run(
        run_on(stream.bytes()),
        expected_default_run(stream, {.starts = {begin}, .master = {.resolution = "320x240"}})));
}

// What a pass processes depends on how much is buffered; the output must not.
TEST(PacketDispatch, LongStreamsComeThroughWholeHoweverTheyArrive)
{
    stream_builder stream;
    stream.start_up();
    std::vector<size_t> starts;
    for (int64_t second = 0; second < 12; second++) {
        if (second % 6 == 0)
            starts.push_back(stream.mark());
        stream.keyframe(900000 + 90000 * second, 20000).tables();
        stream.null(2500);
    }
    // The second cut's fragment is the last one measured: 6 s of the stream.
    const default_run_facts facts{
        .starts = starts,
        .durations = {"6.000"},
        .target_duration = 5,
        .master = {.bandwidth = (starts[1] - starts[0]) * 8 / 6, .resolution = "320x240"},
    };
    const std::vector<std::string> arguments = {"--frag-duration", "5"};
    EXPECT_TRUE(same_run(run_on(stream.bytes(), arguments), expected_default_run(stream, facts)));
    EXPECT_TRUE(same_run(
        run_program({.arguments = arguments,
                     .input = {.from = program_input::source::pipe, .bytes = stream.bytes()}}),
        expected_default_run(stream, facts)));
}

} // namespace
