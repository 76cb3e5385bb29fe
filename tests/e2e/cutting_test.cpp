// When the stream is cut, and how long the fragments are said to be.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr int64_t second = 90000;

// One picture, and what it does to the output.
struct timed_picture {
    int64_t pts;
    bool keyframe = true;
    // A keyframe that cuts: the duration of the fragment it closes; "none" where that makes no
    // entry. Empty: it does not cut.
    std::string cuts = {};
};

struct cut_case {
    std::string_view name;
    std::vector<timed_picture> pictures;
    unsigned frag_duration = 4;
};

const std::string no_entry = "none";

// Runs where every closed fragment makes an entry, but for the first cut, which closes none.
void expect_cuts(std::initializer_list<cut_case> cases)
{
    for (const cut_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        stream.start_up();
        default_run_facts facts{.target_duration = c.frag_duration};
        for (const timed_picture& picture : c.pictures) {
            if (!picture.cuts.empty())
                facts.starts.push_back(stream.mark());
            if (!picture.cuts.empty() && picture.cuts != no_entry)
                facts.durations.push_back(picture.cuts);
            if (picture.keyframe)
                stream.keyframe(picture.pts);
            else
                stream.picture(picture.pts);
            stream.audio(picture.pts);
        }
        EXPECT_TRUE(
            same_run(run_on(stream.bytes(), {"--frag-duration", std::to_string(c.frag_duration)}),
                     expected_default_run(stream, facts)));
    }
}

TEST(Cutting, HappensAtTheFirstKeyframeBeyondTheDuration)
{
    expect_cuts({
        {.name = "keyframes every 2 s: the one exactly 4 s on does not cut",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 1080000},
                      {.pts = 1260000},
                      {.pts = 1440000, .cuts = "6.000"},
                      {.pts = 1620000},
                      {.pts = 1800000},
                      {.pts = 1980000, .cuts = "6.000"},
                      {.pts = 2160000}}},
        {.name = "keyframes every 4 s",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 1260000},
                      {.pts = 1620000, .cuts = "8.000"},
                      {.pts = 1980000},
                      {.pts = 2340000, .cuts = "8.000"}}},
        {.name = "one tick beyond",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 1260001, .cuts = "4.000"}, // 360001 / 90000 = 4.00001
                      {.pts = 1260001 + 360000},
                      {.pts = 1260001 + 360001, .cuts = "4.000"}}},
        {.name = "only keyframes cut",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 900000 + 5 * second, .keyframe = false},
                      {.pts = 900000 + 7 * second, .keyframe = false},
                      {.pts = 900000 + 8 * second, .cuts = "8.000"}}},
        {.name = "the shortest duration",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 900000 + second},
                      {.pts = 900000 + second + 1, .cuts = "1.000"},
                      {.pts = 900000 + 3 * second, .cuts = "2.000"}},
         .frag_duration = 1},
        {.name = "the longest duration",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 900000 + 20 * second},
                      {.pts = 900000 + 21 * second, .cuts = "21.000"}},
         .frag_duration = 20},
    });
}

TEST(Cutting, MeasuresDurationsToTheMillisecond)
{
    expect_cuts({
        {.name = "a fraction of a second",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 900000 + 536400, .cuts = "5.960"}}},
        {.name = "rounded up",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 900000 + 450050, .cuts = "5.001"}}}, // 5.00056
        {.name = "rounded down",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 900000 + 450040, .cuts = "5.000"}}}, // 5.00044
    });
}

TEST(Cutting, TimeZeroIsATime)
{
    expect_cuts({{.name = "first keyframe at 0",
                  .pictures = {{.pts = 0, .cuts = no_entry},
                               {.pts = 2 * second},
                               {.pts = 4 * second},
                               {.pts = 6 * second, .cuts = "6.000"}}}});
}

TEST(Cutting, AStepBackOfMoreThanOneSecondCutsAtOnce)
{
    expect_cuts({
        {.name = "exactly one second back does not cut",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 900000 - second},
                      {.pts = 1260001, .cuts = "4.000"}}},
        {.name = "one tick more does",
         .pictures = {{.pts = 900000, .cuts = no_entry}, {.pts = 900000 - 90001, .cuts = "4.000"}}},
        {.name = "two seconds back; the next cut is due 4 s after the old due time",
         .pictures = {{.pts = 900000, .cuts = no_entry}, // due 1260000
                      {.pts = 720000, .cuts = "4.000"},  // due 1620000
                      {.pts = 1620000},
                      {.pts = 1620001, .cuts = "10.000"}}}, // 900001 ticks since 720000
        {.name = "the duration is the nominal one",
         .pictures = {{.pts = 90000000, .cuts = no_entry},
                      {.pts = 90000000 + 3 * second, .keyframe = false},
                      {.pts = 90000000 - 300 * second, .cuts = "2.000"}},
         .frag_duration = 2},
        {.name = "a step back of a picture is no cut",
         .pictures = {{.pts = 900000, .cuts = no_entry},
                      {.pts = 700000, .keyframe = false},
                      {.pts = 950000}}},
    });
}

TEST(Cutting, AJumpOfTenMinutesCutsWithTheTimeSeenBefore)
{
    const int64_t k = 900000;
    const int64_t jump = 54000000; // 600 s
    expect_cuts({
        {.name = "one tick less than 600 s is continuous",
         .pictures = {{.pts = k, .cuts = no_entry},
                      {.pts = k + 2 * second, .keyframe = false},
                      {.pts = k + jump - 1, .cuts = "600.000"}}},
        {.name = "and measured as such, not by the steps seen",
         .pictures = {{.pts = k, .cuts = no_entry},
                      {.pts = k + 2 * second, .keyframe = false},
                      {.pts = k + 1 * second, .keyframe = false},
                      {.pts = k + jump - 1, .cuts = "600.000"}}},
        {.name = "one tick less than 600 s back is a step back",
         .pictures = {{.pts = 90000000, .cuts = no_entry},
                      {.pts = 90000000 + 2 * second, .keyframe = false},
                      {.pts = 90000000 - jump + 1, .cuts = "4.000"}}},
        {.name = "600 s back is a jump",
         .pictures = {{.pts = 90000000, .cuts = no_entry},
                      {.pts = 90000000 + 2 * second, .keyframe = false},
                      {.pts = 90000000 - jump, .cuts = "2.000"}}},
        {.name = "600 s is a jump",
         .pictures = {{.pts = k, .cuts = no_entry},
                      {.pts = k + second, .keyframe = false},
                      {.pts = k + 3 * second, .keyframe = false},
                      {.pts = k + jump, .cuts = "3.000"},
                      {.pts = k + jump + 5 * second, .cuts = "5.000"}}},
        {.name = "700 s",
         .pictures = {{.pts = k, .cuts = no_entry},
                      {.pts = k + 2 * second, .keyframe = false},
                      {.pts = k + 700 * second, .cuts = "2.000"}}},
        {.name = "keyframes inside the fragment count too",
         .pictures = {{.pts = k, .cuts = no_entry},
                      {.pts = k + 2 * second},
                      {.pts = k + 4 * second},
                      {.pts = k + 800 * second, .cuts = "4.000"}}},
        {.name = "pictures behind the jump do not count",
         .pictures = {{.pts = k, .cuts = no_entry},
                      {.pts = k + second, .keyframe = false},
                      {.pts = k + 700 * second, .keyframe = false},
                      {.pts = k + 701 * second, .keyframe = false},
                      {.pts = k + 702 * second, .cuts = "1.000"}}},
        {.name = "backward steps do not count",
         .pictures = {{.pts = k, .cuts = no_entry},
                      {.pts = k + 2 * second, .keyframe = false},
                      {.pts = k + 1 * second, .keyframe = false},
                      {.pts = k + 3 * second, .keyframe = false},
                      {.pts = k + 700 * second, .cuts = "4.000"}}},
        {.name = "700 s back",
         .pictures = {{.pts = 90000000, .cuts = no_entry},
                      {.pts = 90000000 + 2 * second, .keyframe = false},
                      {.pts = 90000000 - 700 * second, .cuts = "2.000"}}},
    });
}

TEST(Cutting, TheWrapOfTheClockIsSuchAJump)
{
    const int64_t wrap = int64_t{1} << 33;
    expect_cuts({{.name = "keyframes every 2 s across the wrap",
                  .pictures = {{.pts = wrap - 5 * second, .cuts = no_entry},
                               {.pts = wrap - 3 * second},
                               {.pts = wrap - 1 * second},
                               {.pts = 1 * second, .cuts = "4.000"}, // to the last one before it
                               {.pts = 3 * second},
                               {.pts = 5 * second},
                               {.pts = 7 * second, .cuts = "6.000"}}}});
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

TEST(Cutting, TimeSeenFarFromTheClocksStartDoesNotCountBeforeTheFirstKeyframe)
{
    expect_cuts({
        {.name = "one tick too far",
         .pictures = {{.pts = 53999999 - second, .keyframe = false},
                      {.pts = 53999999, .keyframe = false},
                      {.pts = 54000000, .cuts = no_entry},
                      {.pts = 54000000 + 5 * second, .cuts = "5.000"}}},
    });
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

// The other kinds of PES that a video PID may carry.
struct stream_id_case {
    std::string_view name;
    uint8_t stream_id;
    bool want_cut;
};

TEST(Cutting, TakesVideoStreamIdsOnly)
{
    const stream_id_case cases[] = {
        {.name = "first video id", .stream_id = 0xE0, .want_cut = true},
        {.name = "last video id", .stream_id = 0xEF, .want_cut = true},
        {.name = "audio id", .stream_id = 0xC0, .want_cut = false},
        {.name = "private_stream_1", .stream_id = 0xBD, .want_cut = false},
        {.name = "extended stream id", .stream_id = 0xFD, .want_cut = false},
        // Taken, but a stream of this id has no header that could hold a PTS.
        {.name = "ECM stream", .stream_id = 0xF0, .want_cut = false},
    };
    for (const stream_id_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        stream.start_up();
        const size_t begin = stream.mark();
        stream.pes(0x101,
                   {.stream_id = c.stream_id, .pts = 900000, .payload = h264_keyframe({}, 200)});
        const default_run_facts cut{.starts = {begin}};
        EXPECT_TRUE(same_run(run_on(stream.bytes()),
                             expected_default_run(stream, c.want_cut ? cut : default_run_facts{})));
    }
}

} // namespace
