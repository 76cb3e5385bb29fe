#include "v2/es/audio_pes.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/dispatch_run.hpp"
#include "tests/support/pes_builder.hpp"

namespace
{

TEST(AudioPes, CutsAtAudioStreamIdsWithATimeStampAndAPayload)
{
    const byte_string payload(100, 0x5A);
    struct {
        std::string_view name;
        pes_fields pes;
        bool want_cut;
    } const cases[] = {
        {"first audio id", {.stream_id = 0xC0, .pts = 0, .payload = payload}, true},
        {"another audio id", {.stream_id = 0xC7, .pts = 0, .payload = payload}, true},
        {"last audio id", {.stream_id = 0xDF, .pts = 0, .payload = payload}, true},
        {"private_stream_1", {.stream_id = 0xBD, .pts = 0, .payload = payload}, false},
        {"a video id", {.stream_id = 0xE0, .pts = 0, .payload = payload}, false},
        {"no PTS", {.stream_id = 0xC0, .payload = payload}, false},
        {"no payload", {.stream_id = 0xC0, .length = pes_length::true_length, .pts = 0}, false},
        {"a header that does not end in the first packet",
         {.stream_id = 0xC0, .pts = 0, .header_stuffing = 200, .payload = payload},
         false},
    };
    for (const auto& c : cases) {
        dispatch_run run;
        run.start();
        run.pm.video_pid = 0;
        run.put(packetiser{}.pes(audio_pid, build_pes(c.pes)));
        EXPECT_TRUE(run.process());
        EXPECT_EQ(run.pm.frag_start_pts, c.want_cut ? 0 : -1) << c.name;
    }
}

} // namespace
