// The three bands of finished fragments: listed, on disk but unlisted, deleted.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

// Keyframes 5 s apart, so that each cuts: `finished` fragments and the one open at the end.
stream_builder cut_stream(size_t finished, std::vector<size_t>& starts)
{
    stream_builder stream;
    stream.start_up();
    for (size_t i = 0; i <= finished; i++) {
        starts.push_back(stream.mark());
        stream.keyframe(900000 + static_cast<int64_t>(i) * 450000);
    }
    return stream;
}

struct backlog_case {
    size_t backlog;
    size_t finished;
};

TEST(Backlog, KeepsThreeFragmentsBehindTheListedOnes)
{
    const backlog_case cases[] = {{.backlog = 1, .finished = 4},
                                  {.backlog = 1, .finished = 5},
                                  {.backlog = 2, .finished = 9}};
    for (const backlog_case& c : cases) {
        SCOPED_TRACE(std::to_string(c.finished) + " fragments with a backlog of " +
                     std::to_string(c.backlog));
        default_run_facts facts{.durations = std::vector<std::string>(c.finished, "5.000"),
                                .backlog = c.backlog};
        const stream_builder stream = cut_stream(c.finished, facts.starts);
        EXPECT_TRUE(same_run(run_on(stream.bytes(), {"--frag-backlog", std::to_string(c.backlog)}),
                             expected_default_run(stream, facts)));
    }
}

// The default backlog, spelled out.
TEST(Backlog, ListsTenFragmentsByDefault)
{
    std::vector<size_t> starts;
    const stream_builder stream = cut_stream(14, starts); // the last finished one is 13
    const run_result got = run_on(stream.bytes());

    const byte_string want_playlist = bytes_of("#EXTM3U\n"
                                               "#EXT-X-VERSION:4\n"
                                               "#EXT-X-TARGETDURATION:4\n"
                                               "#EXT-X-MEDIA-SEQUENCE:4\n"
                                               "\n"
                                               "#EXTINF:5.000,\nch1.00000004.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000005.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000006.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000007.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000008.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000009.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000010.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000011.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000012.ts\n\n"
                                               "#EXTINF:5.000,\nch1.00000013.ts\n\n");
    EXPECT_EQ(got.files.at("ch1.m3u8.av.m3u8"), want_playlist);
    EXPECT_FALSE(got.files.contains("ch1.00000000.ts"));
    EXPECT_TRUE(got.files.contains("ch1.00000001.ts"));
    EXPECT_TRUE(got.files.contains("ch1.00000014.ts"));
    EXPECT_NE(got.standard_error.find("Deleting old fragment ch1.00000000.ts\n"),
              std::string::npos);
    EXPECT_EQ(got.standard_error.find("Deleting old fragment ch1.00000001.ts\n"),
              std::string::npos);
}

// A removed file is reported like any other, and the run goes on.
TEST(Backlog, AFragmentThatIsGoneBeforeItsTurnIsStillReported)
{
    const size_t window_and_pipe_bytes = 9 * 1024 * 1024;
    default_run_facts facts{.durations = std::vector<std::string>(5, "5.000"), .backlog = 1};
    stream_builder stream;
    stream.start_up();
    for (int64_t i = 0; i < 6; i++) {
        facts.starts.push_back(stream.mark());
        stream.keyframe(900000 + i * 450000);
        // Once the pipe has taken these, the program has processed what came before them.
        if (i == 1)
            stream.null(window_and_pipe_bytes / packet_bytes);
    }
    const auto delivered_after_second_cut = [&] {
        return facts.starts[1] + window_and_pipe_bytes;
    };
    const size_t first_part = delivered_after_second_cut();

    bool removed = false;
    bool delivered = false;
    const run_result got = run_program(
        {.arguments = {"--frag-backlog", "1"},
         .input = {.from = program_input::source::pipe,
                   .bytes = stream.between(0, first_part),
                   .next = [&](byte_string& piece, const std::filesystem::path& directory) {
                       if (delivered)
                           return false;
                       removed = std::filesystem::remove(directory / fragment_name(0));
                       piece = stream.from(first_part);
                       return delivered = true;
                   }}});
    EXPECT_TRUE(removed);
    const expected_run want = expected_default_run(stream, facts);
    EXPECT_EQ(got.ending, want.ending);
    EXPECT_EQ(got.standard_error, want.standard_error);
    EXPECT_FALSE(got.files.contains(fragment_name(0)));
    EXPECT_EQ(got.files.at("ch1.m3u8.av.m3u8"), want.files.at("ch1.m3u8.av.m3u8"));
}

} // namespace
