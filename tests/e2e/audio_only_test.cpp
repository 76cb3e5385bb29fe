// Programmes without video are cut on the time stamps of their audio.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr int64_t second = 90000;

stream_builder audio_stream(audio_codec codec = audio_codec::aac)
{
    stream_builder stream({.video = video_codec::none, .audio = codec});
    stream.start_up();
    return stream;
}

// One audio PES packet; `cuts` is the duration of the fragment that it closes.
struct timed_audio {
    int64_t pts;
    std::string cuts = {};
};

struct audio_case {
    std::string_view name;
    std::vector<timed_audio> frames; // the first one starts the output
};

void expect_audio_cuts(std::initializer_list<audio_case> cases)
{
    for (const audio_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream = audio_stream();
        default_run_facts facts{.starts = {stream.mark()}, .programme = {.video_pid = 0}};
        for (const timed_audio& frame : c.frames) {
            if (!frame.cuts.empty()) {
                facts.starts.push_back(stream.mark());
                facts.durations.push_back(frame.cuts);
            }
            stream.audio(frame.pts);
        }
        EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, facts)));
    }
}

TEST(AudioOnly, IsCutAtTheFirstFrameBeyondTheDuration)
{
    stream_builder stream = audio_stream();
    default_run_facts facts{.durations = {"4.100", "4.100"}, .programme = {.video_pid = 0}};
    for (int64_t i = 0; i < 100; i++) { // every 0.1 s; 4.0 s is not beyond 4 s
        if (i % 41 == 0)
            facts.starts.push_back(stream.mark());
        stream.audio(900000 + i * 9000);
        if (i % 7 == 0)
            stream.null(1);
    }
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, facts)));
}

TEST(AudioOnly, MeasuresEachFragmentByItsTimeStamps)
{
    const int64_t k = 90000000;
    expect_audio_cuts({
        {.name = "one tick beyond",
         .frames = {{.pts = k}, {.pts = k + 360000}, {.pts = k + 360001, .cuts = "4.000"}}},
        {.name = "from zero", .frames = {{.pts = 0}, {.pts = 5 * second, .cuts = "5.000"}}},
        {.name = "any forward jump counts",
         .frames = {{.pts = k}, {.pts = k + 700 * second, .cuts = "700.000"}}},
        {.name = "one second back does not cut", .frames = {{.pts = k}, {.pts = k - second}}},
        {.name = "a tick more cuts with the nominal duration",
         .frames = {{.pts = k}, {.pts = k - second - 1, .cuts = "4.000"}}},
        {.name = "the next cut is due after the old due time",
         .frames = {{.pts = k},                               // due k + 4 s
                    {.pts = k - 2 * second, .cuts = "4.000"}, // due k + 8 s
                    {.pts = k + 8 * second},
                    {.pts = k + 8 * second + 1, .cuts = "10.000"}}},
        {.name = "far back", .frames = {{.pts = k}, {.pts = k - 900 * second, .cuts = "4.000"}}},
    });
}

struct ignored_case {
    std::string_view name;
    pes_fields pes;
};

TEST(AudioOnly, StartsWithTheFirstAudioPesThatHasATimeAndAPayload)
{
    const byte_string payload(100, 0x5A);
    const ignored_case cases[] = {
        {.name = "private_stream_1", .pes = {.stream_id = 0xBD, .pts = 800000, .payload = payload}},
        {.name = "a video id", .pes = {.stream_id = 0xE0, .pts = 800000, .payload = payload}},
        {.name = "no PTS", .pes = {.stream_id = 0xC0, .payload = payload}},
        {.name = "no payload",
         .pes = {.stream_id = 0xC0, .length = pes_length::true_length, .pts = 800000}},
        {.name = "a header that does not end in the first packet",
         .pes = {.stream_id = 0xC0, .pts = 800000, .header_stuffing = 200, .payload = payload}},
    };
    for (const ignored_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream = audio_stream();
        stream.pes(0x102, c.pes);
        const size_t begin = stream.mark();
        stream.audio(900000).pes(0x102, c.pes);
        EXPECT_TRUE(same_run(
            run_on(stream.bytes()),
            expected_default_run(stream, {.starts = {begin}, .programme = {.video_pid = 0}})));
    }
}

TEST(AudioOnly, OfEveryAudioStreamIdIsTimed)
{
    for (const uint8_t id : {uint8_t{0xC0}, uint8_t{0xC7}, uint8_t{0xDF}}) {
        SCOPED_TRACE(int{id});
        stream_builder stream = audio_stream(audio_codec::mpeg);
        const size_t begin = stream.mark();
        stream.pes(0x102, {.stream_id = id, .pts = 900000, .payload = byte_string(50, 0x5A)});
        EXPECT_TRUE(same_run(
            run_on(stream.bytes()),
            expected_default_run(stream, {.starts = {begin}, .programme = {.video_pid = 0}})));
    }
}

TEST(AudioOnly, NeverStartsOnSecondaryAudio)
{
    stream_builder stream({.video = video_codec::none, .sap = audio_codec::aac});
    stream.start_up().sap(900000).sap(1800000);
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         expected_default_run(stream, {.programme = {.video_pid = 0}})));
}

// Audio cuts leave the master playlist as it was.
TEST(AudioOnly, LeavesTheMasterPlaylistAlone)
{
    stream_builder stream = audio_stream();
    const size_t first = stream.mark();
    stream.audio(900000).null(50);
    const size_t next = stream.mark();
    stream.audio(900000 + 5 * second).tables().null(1);
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         expected_default_run(stream, {.starts = {first, next},
                                                       .durations = {"5.000"},
                                                       .programme = {.video_pid = 0}})));
}

} // namespace
