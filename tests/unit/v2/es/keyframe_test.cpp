#include "v2/es/keyframe.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/h264_access_unit.hpp"
#include "tests/support/mpeg_video_builder.hpp"
#include "v2/demux/pid_map.hpp"

namespace
{

byte_string parameter_sets()
{
    return concat({h264_sps({}), h264_pps()});
}

bool is_h264_keyframe(const byte_string& range, PIDmap& pm)
{
    return is_video_keyframe_h264(range.data(), range.data() + range.size(), pm);
}

TEST(H264KeyframeTest, KeepsParameterSetsAndPictureSize)
{
    PIDmap pm;
    EXPECT_EQ(pm.sps_store.last_id, 0xFFFFFFFFu);
    EXPECT_TRUE(is_h264_keyframe(h264_keyframe({.width = 720, .height = 576}, 40), pm));
    EXPECT_EQ(pm.sps_store.sets.size(), 1u);
    EXPECT_EQ(pm.pps_store.sets.size(), 1u);
    EXPECT_EQ(pm.sps_store.last_id, 0u);
    EXPECT_EQ(pm.pps_store.last_id, 0u);
    EXPECT_EQ(pm.video_width, 720u);
    EXPECT_EQ(pm.video_height, 576u);
}

TEST(H264KeyframeTest, IsASliceBehindTheSetsItNeeds)
{
    const byte_string sps = h264_sps({});
    const byte_string pps = h264_pps();
    const byte_string idr = h264_idr_slice(100);
    struct {
        std::string_view name;
        byte_string range;
        bool want;
    } const cases[] = {
        {"delimiter, sets, SEI, slice",
         concat({h264_access_unit_delimiter(), sps, pps, h264_sei_unit(20), idr}), true},
        {"no PPS", concat({sps, idr}), false},
        {"no SPS", concat({pps, idr}), false},
        {"sets behind the slice", concat({idr, sps, pps}), false},
        {"P slice, then IDR slice", concat({sps, pps, h264_p_slice(9), idr}), true},
        {"no start code", byte_string(100, 0xA5), false},
    };
    for (const auto& c : cases) {
        PIDmap pm;
        EXPECT_EQ(is_h264_keyframe(c.range, pm), c.want) << c.name;
    }
}

TEST(H264KeyframeTest, UsesTheSetsOfAnEarlierCall)
{
    PIDmap pm;
    EXPECT_FALSE(is_h264_keyframe(h264_idr_slice(40), pm));
    EXPECT_FALSE(is_h264_keyframe(parameter_sets(), pm));
    EXPECT_TRUE(is_h264_keyframe(h264_idr_slice(40), pm));
}

TEST(H264KeyframeTest, KeepsTwoSequenceParameterSetsAndTheSizeOfTheSecond)
{
    h264_sps_fields first = h264_sps_of_size(640, 480);
    h264_sps_fields second = h264_sps_of_size(1280, 720);
    second.seq_parameter_set_id = 1;
    PIDmap pm;
    EXPECT_FALSE(is_h264_keyframe(concat({h264_sps_unit(first), h264_sps_unit(second)}), pm));
    EXPECT_EQ(pm.sps_store.sets.size(), 2u);
    EXPECT_EQ(pm.sps_store.last_id, 1u);
    EXPECT_EQ(pm.video_width, 1280u);
    EXPECT_EQ(pm.video_height, 720u);
}

TEST(H264KeyframeTest, ReplacesASetOfTheSameId)
{
    PIDmap pm;
    const byte_string sets = concat(
        {h264_sps_unit(h264_sps_of_size(640, 480)), h264_sps_unit(h264_sps_of_size(320, 240))});
    EXPECT_FALSE(is_h264_keyframe(sets, pm));
    EXPECT_EQ(pm.sps_store.sets.size(), 1u);
    EXPECT_EQ(pm.sps_store.sets.at(0).getPicWidth(), 320u);
}

TEST(H264KeyframeTest, KeepsSetsThatFollowTheFirstSlice)
{
    PIDmap pm;
    h264_sps_fields later = h264_sps_of_size(64, 32);
    later.seq_parameter_set_id = 5;
    EXPECT_TRUE(is_h264_keyframe(concat({h264_keyframe({}, 40), h264_sps_unit(later)}), pm));
    EXPECT_EQ(pm.sps_store.last_id, 5u);
    EXPECT_EQ(pm.video_width, 64u);
}

struct slice_case {
    std::string_view name;
    std::vector<h264_slice_fields> slices;
    bool want;
};

TEST(H264KeyframeTest, JudgesTheFirstSliceOfAPicture)
{
    const slice_case cases[] = {
        {.name = "I of an IDR picture", .slices = {{.slice_type = 2}}, .want = true},
        {.name = "I, as all of an IDR picture", .slices = {{.slice_type = 7}}, .want = true},
        {.name = "I outside of an IDR picture",
         .slices = {{.nal_unit_type = 1, .slice_type = 7}},
         .want = true},
        {.name = "SI", .slices = {{.nal_unit_type = 1, .slice_type = 4}}, .want = true},
        {.name = "SI, as all", .slices = {{.nal_unit_type = 1, .slice_type = 9}}, .want = true},
        {.name = "P", .slices = {{.nal_unit_type = 1, .slice_type = 0}}, .want = false},
        {.name = "B", .slices = {{.nal_unit_type = 1, .slice_type = 6}}, .want = false},
        {.name = "SP", .slices = {{.nal_unit_type = 1, .slice_type = 8}}, .want = false},
        {.name = "P in an IDR picture", .slices = {{.slice_type = 5}}, .want = false},
        {.name = "I inside of a picture", .slices = {{.first_mb_in_slice = 1}}, .want = false},
        {.name = "several I slices",
         .slices = {{}, {.first_mb_in_slice = 100}, {.first_mb_in_slice = 200}},
         .want = true},
        {.name = "unknown PPS", .slices = {{.pic_parameter_set_id = 9}}, .want = false},
    };
    for (const slice_case& c : cases) {
        SCOPED_TRACE(c.name);
        byte_string range = parameter_sets();
        for (const h264_slice_fields& slice : c.slices)
            append(range, h264_slice_unit(slice));
        PIDmap pm;
        EXPECT_EQ(is_h264_keyframe(range, pm), c.want);
    }
}

TEST(H264KeyframeTest, AnEmptyRangeIsNone)
{
    PIDmap pm;
    const byte_string range = {0};
    EXPECT_FALSE(is_video_keyframe_h264(range.data(), range.data(), pm));
}

bool is_mpeg_keyframe(const byte_string& range)
{
    PIDmap pm;
    return is_video_keyframe_mpegvideo(range.data(), range.data() + range.size(), pm);
}

TEST(MpegVideoKeyframeTest, PassesOverAPictureThatIsCutOff)
{
    // Four bytes of a start code, three of a header, and the end.
    byte_string cut = build_picture_header({});
    cut.resize(7);
    EXPECT_FALSE(is_mpeg_keyframe(cut));
    EXPECT_TRUE(is_mpeg_keyframe(concat({build_group_header({}), cut})));
}

TEST(MpegVideoKeyframeTest, AreCutPointsAndTheFirstPicturesOfAGroup)
{
    const byte_string sequence = build_sequence_header({});
    const byte_string group = build_group_header({});
    const byte_string slice = build_slice(1, 50);
    const auto intra = [](uint16_t reference) {
        return build_picture_header({.temporal_reference = reference});
    };
    const auto other = [](uint8_t type) {
        return build_picture_header({.picture_coding_type = type});
    };
    struct {
        std::string_view name;
        byte_string range;
        bool want;
    } const cases[] = {
        {"sequence, GOP, I-picture 2", concat({sequence, group, intra(2), slice}), true},
        {"I-picture 0", concat({intra(0), slice}), true},
        {"I-picture 1", concat({intra(1), slice}), false},
        {"I-picture 3", concat({intra(3), slice}), false},
        {"P-picture", concat({other(p_picture), slice}), false},
        {"GOP, P-picture", concat({group, other(p_picture), slice}), true},
        {"sequence, B-picture", concat({sequence, other(b_picture), slice}), true},
        {"D-picture 0", concat({other(d_picture), slice}), false},
        {"headers behind a picture", concat({other(p_picture), slice, sequence, group, intra(0)}),
         false},
        {"sequence alone", concat({sequence, slice}), true},
        {"slices alone", concat({slice, slice}), false},
        {"H.264", h264_keyframe({}, 200), false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(is_mpeg_keyframe(c.range), c.want) << c.name;
}

TEST(MpegVideoKeyframeTest, AStartCodeAtTheEndDoesNotCount)
{
    // Fewer than four bytes follow, so the scan is at its end.
    byte_string cut = build_sequence_header({});
    cut.resize(7);
    EXPECT_FALSE(is_mpeg_keyframe(cut));
    cut.resize(8);
    EXPECT_TRUE(is_mpeg_keyframe(cut));
}

TEST(MpegVideoKeyframeTest, AnEmptyRangeIsNone)
{
    EXPECT_FALSE(is_mpeg_keyframe({}));
}

TEST(KeyframeTest, FollowsTheVideoKind)
{
    const byte_string h264 = h264_keyframe({}, 40);
    const byte_string mpeg = concat({build_sequence_header({}), build_picture_header({})});
    struct {
        uint32_t kind;
        bool want_h264;
        bool want_mpeg;
    } const cases[] = {
        {video_kind_none, false, false},
        {video_kind_h264, true, false},
        {video_kind_mpeg, false, true},
        {3, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        PIDmap pm;
        pm.video_kind = c.kind;
        EXPECT_EQ(is_video_keyframe(h264.data(), h264.data() + h264.size(), pm), c.want_h264);
        EXPECT_EQ(is_video_keyframe(mpeg.data(), mpeg.data() + mpeg.size(), pm), c.want_mpeg);
    }
}

} // namespace
