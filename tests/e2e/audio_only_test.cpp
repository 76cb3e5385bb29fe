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

TEST(AudioOnly, NeverStartsOnSecondaryAudio)
{
    stream_builder stream({.video = video_codec::none, .sap = audio_codec::aac});
    stream.start_up().sap(900000).sap(1800000);
    EXPECT_TRUE(same_run(run_on(stream.bytes()),
                         expected_default_run(stream, {.programme = {.video_pid = 0}})));
}

} // namespace
