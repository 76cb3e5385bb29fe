// Programmes with MPEG-1 or MPEG-2 video: which pictures count as keyframes, and the cuts.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr int64_t second = 90000;
const programme_fields mpeg2_programme{.video = video_codec::mpeg2, .audio = audio_codec::mpeg};

struct payload_case {
    std::string_view name;
    byte_string payload;
    bool want_keyframe;
};

TEST(MpegVideo, IsCutAtHeadersAndAtTheFirstPictureOfAGroup)
{
    const byte_string sequence = build_sequence_header({});
    const byte_string group = build_group_header({});
    const byte_string slice = build_slice(1, 50);
    const auto i = [](uint16_t reference) {
        return build_picture_header({.temporal_reference = reference});
    };
    const auto other = [](uint8_t type) {
        return build_picture_header({.picture_coding_type = type});
    };
    byte_string cut_picture = other(p_picture);
    cut_picture.resize(7);
    const payload_case cases[] = {
        {.name = "sequence, GOP, I-picture 2",
         .payload = concat({sequence, group, i(2), slice}),
         .want_keyframe = true},
        {.name = "I-picture 0", .payload = concat({i(0), slice}), .want_keyframe = true},
        {.name = "I-picture 3", .payload = concat({i(3), slice}), .want_keyframe = false},
        {.name = "I-picture 1", .payload = concat({i(1), slice}), .want_keyframe = false},
        {.name = "P-picture", .payload = concat({other(p_picture), slice}), .want_keyframe = false},
        {.name = "GOP, P-picture",
         .payload = concat({group, other(p_picture), slice}),
         .want_keyframe = true},
        {.name = "sequence, B-picture",
         .payload = concat({sequence, other(b_picture), slice}),
         .want_keyframe = true},
        {.name = "D-picture 0",
         .payload = concat({other(d_picture), slice}),
         .want_keyframe = false},
        {.name = "P-picture, then a GOP",
         .payload = concat({other(p_picture), slice, group, i(0)}),
         .want_keyframe = false},
        {.name = "sequence alone", .payload = concat({sequence, slice}), .want_keyframe = true},
        {.name = "slices alone", .payload = concat({slice, slice}), .want_keyframe = false},
        {.name = "a picture cut off by the end", .payload = cut_picture, .want_keyframe = false},
        {.name = "H.264", .payload = h264_keyframe({}, 200), .want_keyframe = false},
        {.name = "nothing", .payload = {}, .want_keyframe = false},
    };
    for (const payload_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream(mpeg2_programme);
        stream.start_up();
        default_run_facts facts;
        if (c.want_keyframe)
            facts.starts = {stream.mark()};
        stream.pes(0x101, {.pts = 900000, .payload = c.payload});
        EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, facts)));
    }
}

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
