// Programmes without video are cut on the time stamps of their audio.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

stream_builder audio_stream(audio_codec codec = audio_codec::aac)
{
    stream_builder stream({.video = video_codec::none, .audio = codec});
    stream.start_up();
    return stream;
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

} // namespace
