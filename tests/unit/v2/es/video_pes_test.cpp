#include "v2/es/video_pes.hpp"

#include <span>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/dispatch_run.hpp"
#include "tests/support/h264_access_unit.hpp"
#include "tests/support/pes_builder.hpp"

namespace
{

constexpr int64_t pts = 900000;

byte_string video_packets(const pes_fields& pes)
{
    return packetiser{}.pes(video_pid, build_pes(pes));
}

// What the handling of one video PES packet comes to: "cut", "timed" for a picture that is no
// keyframe, or "nothing".
std::string effect_of(const byte_string& packets)
{
    dispatch_run run;
    run.start();
    run.put(packets);
    EXPECT_TRUE(run.process());
    if (run.pm.last_video_pts != pts)
        return "nothing";
    return run.pm.frag_start_pts == pts ? "cut" : "timed";
}

// An access unit whose slice stands `sei_bytes` and more behind its beginning.
byte_string long_keyframe(size_t sei_bytes)
{
    return concat({h264_sps({}), h264_pps(), h264_sei_unit(sei_bytes), h264_idr_slice(50)});
}

TEST(VideoPes, GathersAPictureFromThePacketsOfItsPidThatFollow)
{
    EXPECT_EQ(effect_of(video_packets({.pts = pts, .payload = long_keyframe(3000)})), "cut");

    // Among others its slice is within 8192 bytes of its own PID, and not of all packets.
    const byte_string own = video_packets({.pts = pts, .payload = long_keyframe(4500)});
    byte_string mixed;
    for (size_t at = 0; at < own.size(); at += packet_bytes)
        append(mixed, concat({std::span(own).subspan(at, packet_bytes), null_packets(1)}));
    EXPECT_EQ(effect_of(mixed), "cut");
}

TEST(VideoPes, GathersNothingBehindTheNextPesALossOfSyncOrTheEndOfTheInput)
{
    const byte_string own = video_packets({.pts = pts, .payload = long_keyframe(400)});
    const std::span first = std::span(own).first(packet_bytes);
    const std::span rest = std::span(own).subspan(packet_bytes);
    const byte_string next_pes = build_ts_packet({.payload_unit_start = true, .pid = video_pid});
    EXPECT_EQ(effect_of(concat({first, rest})), "cut");
    EXPECT_EQ(effect_of(concat({first, next_pes, rest})), "timed");
    EXPECT_EQ(effect_of(concat({first, byte_string(packet_bytes, 0), rest})), "timed");
    EXPECT_EQ(effect_of(concat({first, build_ts_packet({.adaptation_field_control = 0}), rest})),
              "timed");
    EXPECT_EQ(effect_of(concat({first, rest.first(packet_bytes)})), "timed");
}

// The start of a PES packet is gathered up to 8192 bytes, its header of 14 bytes included.
TEST(VideoPes, LooksForAKeyframeInTheFirst8192BytesOfThePes)
{
    const size_t before_slice =
        concat({h264_sps({}), h264_pps(), h264_sei_unit(8000)}).size() - 8000;
    const size_t room = 8192 - 14 - before_slice;
    // Start code, NAL unit header, and the bytes that the slice header reaches into.
    const size_t slice_bytes = 4 + 1 + h264_slice_bits({}).bytes().size();
    struct {
        std::string_view name;
        size_t sei_bytes;
        std::string_view want;
    } const cases[] = {
        {"the slice header just fits", room - slice_bytes, "cut"},
        {"the slice header is cut off", room - slice_bytes + 1, "timed"},
        {"the slice begins at the end", room, "timed"},
        {"an SEI of 8 KiB hides the slice", 8192, "timed"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(effect_of(video_packets({.pts = pts, .payload = long_keyframe(c.sei_bytes)})),
                  c.want)
            << c.name;
}

TEST(VideoPes, LooksNoFurtherThanTheEndThatItsPesGives)
{
    const byte_string sets = concat({h264_sps({}), h264_pps()});
    // PES_packet_length covers the optional header and the sets, not the slice.
    EXPECT_EQ(effect_of(video_packets({.packet_length = static_cast<uint16_t>(8 + sets.size()),
                                       .pts = pts,
                                       .payload = concat({sets, h264_idr_slice(100)})})),
              "timed");
    EXPECT_EQ(
        effect_of(video_packets({.length = pes_length::true_length, .pts = pts, .payload = {}})),
        "timed");
}

// A PES packet of ECM_stream has no time stamp, and nothing behind it is looked at.
TEST(VideoPes, TakesAnEcmStreamForVideo)
{
    const byte_string video = build_pes({.pts = pts, .payload = h264_keyframe({}, 40)});
    const auto behind = [&video](uint8_t stream_id) {
        const byte_string other = build_pes(
            {.stream_id = stream_id, .length = pes_length::true_length, .payload = {1, 2, 3}});
        return effect_of(packetiser{}.pes(video_pid, concat({other, video})));
    };
    EXPECT_EQ(behind(0xF0), "nothing");
    EXPECT_EQ(behind(0xC0), "cut");
}

TEST(VideoPes, TakesVideoStreamIdsWithATimeStampOnly)
{
    struct {
        std::string_view name;
        pes_fields pes;
        std::string_view want;
    } const cases[] = {
        {"first video id", {.stream_id = 0xE0, .pts = pts}, "cut"},
        {"last video id", {.stream_id = 0xEF, .pts = pts}, "cut"},
        {"audio id", {.stream_id = 0xC0, .pts = pts}, "nothing"},
        {"private_stream_1", {.stream_id = 0xBD, .pts = pts}, "nothing"},
        {"extended stream id", {.stream_id = 0xFD, .pts = pts}, "nothing"},
        // Taken, but a stream of this id has no header that could hold a PTS.
        {"ECM stream", {.stream_id = 0xF0, .pts = pts}, "nothing"},
        {"no PTS", {}, "nothing"},
        {"forbidden PTS_DTS_flags", {.pts = pts, .pts_dts_flags = 1}, "nothing"},
    };
    for (const auto& c : cases) {
        pes_fields pes = c.pes;
        pes.payload = h264_keyframe({}, 200);
        EXPECT_EQ(effect_of(video_packets(pes)), c.want) << c.name;
    }
}

// The fragment is due 4 s on, and cues may belong to it for 3 s more: until then a cue without an
// end waits for the one behind it.
TEST(VideoPes, LetsCuesRunThreeSecondsBeyondTheFragment)
{
    for (const int64_t beyond : {-1, 0}) {
        dispatch_run run;
        run.start();
        vtt_cue cue;
        cue.mpeg_timestamp = static_cast<uint64_t>(pts + 7 * 90000 + beyond);
        cue.now = -1;
        vtt_queues["eng"].push_back(cue);
        run.put(video_packets({.pts = pts, .payload = h264_keyframe({}, 200)}));
        EXPECT_TRUE(run.process());
        EXPECT_EQ(vtt_queues["eng"].size(), beyond < 0 ? 1u : 0u);
    }
}

} // namespace
