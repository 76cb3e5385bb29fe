// Which H.264 pictures count as keyframes, seen from outside: a keyframe starts the output.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

void expect_output_starts(const stream_builder& stream, size_t begin)
{
    EXPECT_TRUE(
        same_run(run_on(stream.bytes()), expected_default_run(stream, {.starts = {begin}})));
}

void expect_no_output(const stream_builder& stream)
{
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, {})));
}

struct unit_case {
    std::string_view name;
    byte_string access_unit;
    bool want_keyframe;
};

TEST(H264Keyframe, IsAnIPictureWhoseParameterSetsAreKnown)
{
    const byte_string aud = h264_access_unit_delimiter();
    const byte_string sps = h264_sps({});
    const byte_string pps = h264_pps();
    const byte_string idr = h264_idr_slice(100);
    const unit_case cases[] = {
        {.name = "delimiter, sets, SEI, IDR slice",
         .access_unit = concat({aud, sps, pps, h264_sei_unit(20), idr}),
         .want_keyframe = true},
        {.name = "sets and IDR slice",
         .access_unit = concat({sps, pps, idr}),
         .want_keyframe = true},
        {.name = "no sets", .access_unit = concat({aud, idr}), .want_keyframe = false},
        {.name = "no PPS", .access_unit = concat({sps, idr}), .want_keyframe = false},
        {.name = "no SPS", .access_unit = concat({pps, idr}), .want_keyframe = false},
        {.name = "sets behind the slice",
         .access_unit = concat({idr, sps, pps}),
         .want_keyframe = false},
        {.name = "P slice",
         .access_unit = concat({sps, pps, h264_p_slice(100)}),
         .want_keyframe = false},
        {.name = "P slice, then IDR slice",
         .access_unit = concat({sps, pps, h264_p_slice(9), idr}),
         .want_keyframe = true},
        {.name = "sets alone", .access_unit = concat({aud, sps, pps}), .want_keyframe = false},
        {.name = "nothing", .access_unit = {}, .want_keyframe = false},
        {.name = "no start code", .access_unit = byte_string(100, 0xA5), .want_keyframe = false},
    };
    for (const unit_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        stream.start_up();
        const size_t begin = stream.mark();
        stream.pes(0x101, {.pts = 900000, .payload = c.access_unit});
        if (c.want_keyframe)
            expect_output_starts(stream, begin);
        else
            expect_no_output(stream);
    }
}

TEST(H264Keyframe, UsesParameterSetsOfAnEarlierAccessUnit)
{
    stream_builder stream;
    stream.start_up();
    stream.pes(0x101,
               {.pts = 900000, .payload = concat({h264_sps({}), h264_pps(), h264_p_slice(50)})});
    const size_t begin = stream.mark();
    stream.pes(0x101, {.pts = 900000, .payload = h264_idr_slice(100)});
    expect_output_starts(stream, begin);
}

// An access unit whose slice lies in a later packet than its start.
byte_string long_keyframe(size_t sei_bytes)
{
    return concat({h264_sps({}), h264_pps(), h264_sei_unit(sei_bytes), h264_idr_slice(50)});
}

TEST(H264Keyframe, IsFoundInThePacketsThatFollowTheFirst)
{
    stream_builder stream;
    stream.start_up();
    const size_t begin = stream.mark();
    stream.pes(0x101, {.pts = 900000, .payload = long_keyframe(3000)});
    expect_output_starts(stream, begin);
}

TEST(H264Keyframe, IsFoundBetweenPacketsOfOtherPids)
{
    stream_builder stream;
    stream.start_up();
    const size_t begin = stream.mark();
    const byte_string packets =
        packetiser{}.pes(0x101, build_pes({.pts = 900000, .payload = long_keyframe(1000)}));
    for (size_t at = 0; at < packets.size(); at += packet_bytes) {
        stream.raw(std::span(packets).subspan(at, packet_bytes));
        stream.audio(900000).null(3);
    }
    expect_output_starts(stream, begin);
}

// The start of a PES packet is gathered up to 8192 bytes, its header of 14 bytes included.
TEST(H264Keyframe, IsLookedForInTheFirst8192BytesOfItsPes)
{
    const size_t before_slice =
        concat({h264_sps({}), h264_pps(), h264_sei_unit(8000)}).size() - 8000;
    const size_t room = 8192 - 14 - before_slice;
    // Start code, NAL unit header, and the bytes that the slice header reaches into.
    const size_t slice_bytes = 4 + 1 + h264_slice_bits({}).bytes().size();
    struct {
        std::string_view name;
        size_t sei_bytes;
        bool want_keyframe;
    } const cases[] = {
        {.name = "the slice begins well inside", .sei_bytes = 7000, .want_keyframe = true},
        {.name = "the slice header just fits",
         .sei_bytes = room - slice_bytes,
         .want_keyframe = true},
        {.name = "the slice header is cut off",
         .sei_bytes = room - slice_bytes + 1,
         .want_keyframe = false},
        {.name = "the slice begins at the end", .sei_bytes = room, .want_keyframe = false},
        {.name = "an SEI of 8 KiB hides the slice", .sei_bytes = 8192, .want_keyframe = false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        stream.start_up();
        const size_t begin = stream.mark();
        stream.pes(0x101, {.pts = 900000, .payload = long_keyframe(c.sei_bytes)});
        if (c.want_keyframe)
            expect_output_starts(stream, begin);
        else
            expect_no_output(stream);
    }
}

TEST(H264Keyframe, IsMissedWhenTheInputEndsBeforeItsSlice)
{
    stream_builder stream;
    stream.start_up();
    const byte_string packets =
        packetiser{}.pes(0x101, build_pes({.pts = 900000, .payload = long_keyframe(400)}));
    stream.raw(std::span(packets).first(2 * packet_bytes));
    expect_no_output(stream);
}

TEST(H264Keyframe, IsNotTakenFromTheNextPes)
{
    stream_builder stream;
    stream.start_up();
    stream.pes(0x101, {.pts = 900000, .payload = concat({h264_sps({}), h264_pps()})});
    const size_t begin = stream.mark();
    stream.pes(0x101, {.pts = 900000, .payload = h264_idr_slice(100)});
    expect_output_starts(stream, begin);
}

TEST(H264Keyframe, IsNotLookedForBehindTheEndThatItsPesGives)
{
    stream_builder stream;
    stream.start_up();
    const byte_string sets = concat({h264_sps({}), h264_pps()});
    // PES_packet_length covers the optional header and the sets, not the slice.
    stream.pes(0x101, {.packet_length = static_cast<uint16_t>(8 + sets.size()),
                       .pts = 900000,
                       .payload = concat({sets, h264_idr_slice(100)})});
    expect_no_output(stream);
}

TEST(H264Keyframe, IsNotLookedForBehindALossOfSync)
{
    stream_builder stream;
    stream.start_up();
    const byte_string packets =
        packetiser{}.pes(0x101, build_pes({.pts = 900000, .payload = long_keyframe(400)}));
    stream.raw(std::span(packets).first(packet_bytes));
    stream.raw(byte_string(packet_bytes, 0)); // garbage of one packet's length
    stream.raw(std::span(packets).subspan(packet_bytes));
    stream.null(10);
    expect_no_output(stream);
}

} // namespace
