// Fragment files: their names, and what happens when one cannot be opened or written.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

// Keyframes 5 s apart: each cuts. `starts` holds where they begin.
struct cut_stream {
    explicit cut_stream(size_t cuts, size_t null_packets_between = 0)
    {
        stream.start_up();
        for (size_t i = 0; i < cuts; i++) {
            starts.push_back(stream.mark());
            stream.keyframe(900000 + static_cast<int64_t>(i) * 450000);
            stream.null(null_packets_between);
        }
    }

    [[nodiscard]] expected_run want() const
    {
        return expected_default_run(
            stream,
            {.starts = starts, .durations = std::vector<std::string>(starts.size() - 1, "5.000")});
    }

    // The stream's bytes from the first cut on, as many as `count`.
    [[nodiscard]] byte_string first_bytes(size_t count) const
    {
        return stream.between(starts.front(), starts.front() + count);
    }

    stream_builder stream;
    std::vector<size_t> starts;
};

TEST(FragmentFiles, AreNumberedFromZeroWithEightDigits)
{
    const cut_stream cut(3);
    const run_result got = run_on(cut.stream.bytes());
    EXPECT_TRUE(same_run(got, cut.want()));
    EXPECT_TRUE(got.files.contains("ch1.00000000.ts"));
    EXPECT_TRUE(got.files.contains("ch1.00000002.ts"));
}

TEST(FragmentFiles, TakeTheirNameFromTheOption)
{
    const cut_stream cut(2);
    expected_run want = cut.want();
    want.files["video one.00000000.ts"] = want.files["ch1.00000000.ts"];
    want.files["video one.00000001.ts"] = want.files["ch1.00000001.ts"];
    want.files.erase("ch1.00000000.ts");
    want.files.erase("ch1.00000001.ts");
    want.files["ch1.m3u8.av.m3u8"] =
        media_playlist({.first_sequence = 0, .fragments = {{"5.000", "video%20one.00000000.ts"}}});
    EXPECT_TRUE(same_run(run_on(cut.stream.bytes(), {"--frag-name", "video one"}), want));
}

TEST(FragmentFiles, ReplaceFilesOfAnEarlierRun)
{
    const cut_stream cut(2);
    EXPECT_TRUE(same_run(
        run_program({.input = {.bytes = cut.stream.bytes()},
                     .files = {{"ch1.00000000.ts", byte_string(100000, 0xEE)},
                               {"ch1.m3u8", bytes_of("old")},
                               {"ch1.m3u8.av.m3u8", bytes_of("old")},
                               {".tmp", bytes_of("a much longer text than an empty list")}}}),
        cut.want()));
}

TEST(FragmentFiles, OfAnEarlierRunAreOtherwiseLeftAlone)
{
    const cut_stream cut(2);
    expected_run want = cut.want();
    want.files["ch1.00000099.ts"] = bytes_of("old");
    EXPECT_TRUE(same_run(run_program({.input = {.bytes = cut.stream.bytes()},
                                      .files = {{"ch1.00000099.ts", bytes_of("old")}}}),
                         want));
}

// The number is spent on the failed attempt; the first packet's write opens the next one.
TEST(FragmentFiles, AFragmentThatCannotBeOpenedAtTheCutIsTriedWithTheNextNumber)
{
    const cut_stream cut(3);
    expected_run want = cut.want();
    want.files = {
        {"ch1.m3u8", master_playlist({})},
        {"ch1.m3u8.av.m3u8", media_playlist({.first_sequence = 0,
                                             .fragments = {{"5.000", "ch1.00000000.ts"},
                                                           {"5.000", "ch1.00000002.ts"}}})},
        {".tmp", media_playlist({.first_sequence = 0, .fragments = nameless(2)})},
        {"ch1.00000000.ts", cut.stream.between(cut.starts[0], cut.starts[1])},
        {"ch1.00000001.ts/", {}},
        {"ch1.00000002.ts", cut.stream.between(cut.starts[1], cut.starts[2])},
        {"ch1.00000003.ts", cut.stream.from(cut.starts[2])},
    };
    EXPECT_TRUE(same_run(
        run_program({.input = {.bytes = cut.stream.bytes()}, .files = {{"ch1.00000001.ts/", {}}}}),
        want));
}

// The run that a write ended, with one finished fragment and what `files` adds.
expected_run ended_behind(const byte_string& finished, const file_map& files)
{
    expected_run want{
        .ending = "exit 2",
        .standard_error = programme_lines() + nameless_warnings(0, 0) + nameless_warnings(0, 0) +
                          "HLS out write error\n"
                          "I/O proc fail\n",
        .files = {
            {"ch1.m3u8", master_playlist({})},
            {"ch1.m3u8.av.m3u8",
             media_playlist({.first_sequence = 0, .fragments = {{"5.000", "ch1.00000000.ts"}}})},
            {".tmp", media_playlist({.first_sequence = 0, .fragments = nameless(1)})},
            {"ch1.00000000.ts", finished},
        }};
    want.files.insert(files.begin(), files.end());
    return want;
}

TEST(FragmentFiles, AFragmentThatCannotBeOpenedForItsPacketEndsTheRun)
{
    const cut_stream cut(3);
    const file_map in_the_way = {{"ch1.00000001.ts/", {}}, {"ch1.00000002.ts/", {}}};
    EXPECT_TRUE(
        same_run(run_program({.input = {.bytes = cut.stream.bytes()}, .files = in_the_way}),
                 ended_behind(cut.stream.between(cut.starts[0], cut.starts[1]), in_the_way)));
}

struct limit_case {
    std::string_view name;
    size_t limit; // bytes that a file may hold
};

TEST(FragmentFiles, AFragmentThatCannotBeWrittenEndsTheRunAndStaysUnlisted)
{
    const limit_case cases[] = {
        {.name = "a short write", .limit = 20 * packet_bytes + 60},
        {.name = "a failed write", .limit = 20 * packet_bytes},
    };
    for (const limit_case& c : cases) {
        SCOPED_TRACE(c.name);
        const cut_stream cut(1, 100);
        const expected_run want{
            .ending = "exit 2",
            .standard_error = programme_lines() + "HLS out write error\n"
                                                  "I/O proc fail\n",
            .files = {{"ch1.m3u8", master_playlist({})},
                      {"ch1.m3u8.av.m3u8", media_playlist({})},
                      {".tmp", media_playlist({})},
                      {"ch1.00000000.ts", cut.first_bytes(c.limit)}},
        };
        EXPECT_TRUE(same_run(
            run_program({.input = {.bytes = cut.stream.bytes()}, .file_size_limit = c.limit}),
            want));
    }
}

TEST(FragmentFiles, AFailedWriteKeepsTheFragmentsListedBefore)
{
    stream_builder stream;
    stream.start_up();
    const size_t first = stream.mark();
    stream.keyframe(900000);
    const size_t second = stream.mark();
    stream.keyframe(900000 + 450000).null(100);
    const size_t limit = 30 * packet_bytes;
    EXPECT_TRUE(
        same_run(run_program({.input = {.bytes = stream.bytes()}, .file_size_limit = limit}),
                 ended_behind(stream.between(first, second),
                              {{"ch1.00000001.ts", stream.between(second, second + limit)}})));
}

} // namespace
