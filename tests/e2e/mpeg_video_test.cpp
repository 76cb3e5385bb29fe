// A programme with MPEG-2 video.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr int64_t second = 90000;
const programme_fields mpeg2_programme{.video = video_codec::mpeg2, .audio = audio_codec::mpeg};

TEST(MpegVideo, IsCutLikeOtherVideoAndHasNoPictureSize)
{
    stream_builder stream(mpeg2_programme);
    stream.start_up();
    default_run_facts facts{.durations = {"6.000"}};
    for (int64_t i = 0; i <= 4; i++) {
        if (i % 3 == 0)
            facts.starts.push_back(stream.mark());
        stream.keyframe(900000 + i * 2 * second, 1000).audio(900000 + i * 2 * second);
        stream.picture(900000 + i * 2 * second + second);
    }
    stream.tables().null(1);
    facts.master.bandwidth = (facts.starts[1] - facts.starts[0]) * 8 / 6;
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, facts)));
}

} // namespace
