// When the stream is cut, and how long the fragments are said to be.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr int64_t second = 90000;

TEST(Cutting, HappensAtTheFirstKeyframeBeyondTheDuration)
{
    stream_builder stream;
    stream.start_up();
    default_run_facts facts{.durations = {"6.000", "6.000"}};
    for (int64_t i = 0; i < 8; i++) { // every 2 s: the one exactly 4 s on does not cut
        if (i % 3 == 0)
            facts.starts.push_back(stream.mark());
        stream.keyframe(900000 + 2 * i * second).audio(900000 + 2 * i * second);
        stream.picture(900000 + (2 * i + 1) * second);
    }
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, facts)));
}

// A jump without time seen before: the fragment is closed, stays on disk and is never listed.
TEST(Cutting, AJumpWithoutTimeSeenBeforeMakesNoEntry)
{
    stream_builder stream;
    stream.start_up();
    const size_t first = stream.mark();
    stream.keyframe(900000);
    const size_t second_fragment = stream.mark();
    stream.keyframe(900000 + 700 * second);
    const size_t third = stream.mark();
    stream.keyframe(900000 + 705 * second);

    // The number 0 is spent, so the first entry is fragment 1, with its number as sequence. The
    // outputs without packets count their entries from 0.
    expected_run want = expected_default_run(stream, {.starts = {first}});
    want.standard_error =
        programme_lines() + nameless_warnings(0, 0) + nameless_warnings(0, 0) + "Stream EOF\n";
    want.files = {
        {"ch1.m3u8", master_playlist({})},
        {"ch1.m3u8.av.m3u8",
         media_playlist({.first_sequence = 1, .fragments = {{"5.000", "ch1.00000001.ts"}}})},
        {".tmp", media_playlist({.first_sequence = 0, .fragments = nameless(1)})},
        {"ch1.00000000.ts", stream.between(first, second_fragment)},
        {"ch1.00000001.ts", stream.between(second_fragment, third)},
        {"ch1.00000002.ts", stream.from(third)},
    };
    EXPECT_TRUE(same_run(run_on(stream.bytes()), want));
}

// Pictures before the first keyframe add up when their clock is below 53999999. The first cut then
// makes an entry although no fragment was open.
TEST(Cutting, TimeSeenBeforeTheFirstKeyframeMakesAnEntryWithoutAName)
{
    stream_builder stream;
    stream.start_up();
    stream.picture(0).picture(1 * second);
    const size_t first = stream.mark();
    stream.keyframe(2 * second);
    const size_t second_fragment = stream.mark();
    stream.keyframe(7 * second);

    const std::string named = "ch1.m3u8.av.m3u8";
    const std::string first_cut = nameless_warnings(0, 0, named) + // of the main rendition
                                  nameless_warnings(0, 0) + nameless_warnings(0, 0);
    const std::string second_cut =
        nameless_warnings(0, 0, named) + nameless_warnings(0, 1) + nameless_warnings(0, 1);
    const std::string at_the_end = nameless_warnings(0, 0, named);
    const expected_run want{
        .standard_error = programme_lines() + first_cut + second_cut + "Stream EOF\n" + at_the_end,
        .files = {
            {"ch1.m3u8", master_playlist({})},
            // The entry without a name, then fragment 0 behind it.
            {named, media_playlist(
                        {.first_sequence = 0, .fragments = {{}, {"5.000", "ch1.00000000.ts"}}})},
            {".tmp", media_playlist({.first_sequence = 0, .fragments = nameless(2)})},
            {"ch1.00000000.ts", stream.between(first, second_fragment)},
            {"ch1.00000001.ts", stream.from(second_fragment)},
        }};
    EXPECT_TRUE(same_run(run_on(stream.bytes()), want));
}

TEST(Cutting, APesWithoutTimeStampChangesNothing)
{
    stream_builder stream;
    stream.start_up();
    const byte_string keyframe = h264_keyframe({}, 200);
    stream.pes(0x101, {.payload = keyframe}); // starts no output
    const size_t first = stream.mark();
    stream.keyframe(900000);
    stream.pes(0x101, {.payload = keyframe});
    stream.pes(0x101, {.pts = 1800000, .pts_dts_flags = 1, .payload = keyframe});
    const size_t next = stream.mark();
    stream.keyframe(900000 + 5 * second);
    EXPECT_TRUE(
        same_run(run_on(stream.bytes()),
                 expected_default_run(stream, {.starts = {first, next}, .durations = {"5.000"}})));
}

TEST(Cutting, AudioNeverCutsWhereThereIsVideo)
{
    stream_builder stream;
    stream.start_up();
    stream.audio(800000);
    const size_t first = stream.mark();
    stream.keyframe(900000);
    for (int64_t i = 0; i < 10; i++)
        stream.audio(900000 + i * 10 * second);
    EXPECT_TRUE(
        same_run(run_on(stream.bytes()), expected_default_run(stream, {.starts = {first}})));
}

} // namespace
