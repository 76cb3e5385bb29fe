#include "toolkit/h264/h264_nal_sps.hpp"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/h264_builder.hpp"

namespace tremsa
{

namespace
{

h264_nal_sps parse_bits(bit_writer w)
{
    w.rbsp_trailing_bits();
    h2645_common_bitreader b(w.bytes().data(), w.bytes().data() + w.bytes().size());
    h264_nal_sps sps;
    sps.parse(b);
    return sps;
}

h264_nal_sps parse(const h264_sps_fields& fields)
{
    return parse_bits(h264_sps_bits(fields));
}

// A set with every optional part, each field with a value of its own.
h264_sps_fields full_sps()
{
    return {
        .profile_idc = 100,
        .constraint_set_flags = 0b101010,
        .level_idc = 51,
        .seq_parameter_set_id = 31,
        .high =
            h264_sps_fields::high_fields{
                .chroma_format_idc = 2,
                .bit_depth_luma_minus8 = 2,
                .bit_depth_chroma_minus8 = 1,
                .qpprime_y_zero_transform_bypass_flag = true,
                .scaling_lists = std::vector<h264_delta_scales>{h264_delta_scales(16, 1),
                                                                {},
                                                                {-8},
                                                                {},
                                                                {},
                                                                {},
                                                                {},
                                                                h264_delta_scales(64, 2)},
            },
        .log2_max_frame_num_minus4 = 12,
        .pic_order_cnt_type = 1,
        .delta_pic_order_always_zero_flag = true,
        .offset_for_non_ref_pic = -7,
        .offset_for_top_to_bottom_field = 9,
        .offset_for_ref_frame = {3, -4, 5},
        .max_num_ref_frames = 16,
        .gaps_in_frame_num_value_allowed_flag = true,
        .pic_width_in_mbs_minus1 = 44,
        .pic_height_in_map_units_minus1 = 17,
        .frame_mbs_only_flag = false,
        .mb_adaptive_frame_field_flag = true,
        .direct_8x8_inference_flag = true,
        .frame_cropping = h264_sps_fields::crop{.left = 1, .right = 2, .top = 3, .bottom = 4},
        .vui =
            h264_vui_fields{
                .aspect_ratio_idc = 255,
                .sar_width = 65535,
                .sar_height = 11,
                .overscan_appropriate_flag = true,
                .video_signal =
                    h264_vui_fields::video_signal_type{
                        .video_format = 2,
                        .video_full_range_flag = true,
                        .colour_description = std::array<uint64_t, 3>{9, 16, 10},
                    },
                .chroma_sample_loc_type = std::array<uint64_t, 2>{4, 5},
                .timing = h264_vui_fields::timing_info{.num_units_in_tick = 1001,
                                                       .time_scale = 4294967295,
                                                       .fixed_frame_rate_flag = true},
                .nal_hrd = h264_hrd_fields{.bit_rate_scale = 3,
                                           .cpb_size_scale = 4,
                                           .cpbs = {{.bit_rate_value_minus1 = 100,
                                                     .cpb_size_value_minus1 = 200,
                                                     .cbr_flag = true},
                                                    {.bit_rate_value_minus1 = 4294967294,
                                                     .cpb_size_value_minus1 = 7,
                                                     .cbr_flag = false}},
                                           .initial_cpb_removal_delay_length_minus1 = 20,
                                           .cpb_removal_delay_length_minus1 = 21,
                                           .dpb_output_delay_length_minus1 = 22,
                                           .time_offset_length = 23},
                .vcl_hrd = h264_hrd_fields{.bit_rate_scale = 15},
                .low_delay_hrd_flag = true,
                .pic_struct_present_flag = true,
                .restriction =
                    h264_vui_fields::bitstream_restriction{
                        .motion_vectors_over_pic_boundaries_flag = false,
                        .max_bytes_per_pic_denom = 3,
                        .max_bits_per_mb_denom = 4,
                        .log2_max_mv_length_horizontal = 11,
                        .log2_max_mv_length_vertical = 12,
                        .max_num_reorder_frames = 5,
                        .max_dec_frame_buffering = 6,
                    },
            },
    };
}

TEST(Sps, ReadsEveryFieldInFrontOfTheVui)
{
    const h264_nal_sps sps = parse(full_sps());
    ASSERT_TRUE(sps.valid);
    EXPECT_EQ(sps.profile_idc, 100u);
    EXPECT_TRUE(sps.constraint_set0_flag);
    EXPECT_FALSE(sps.constraint_set1_flag);
    EXPECT_TRUE(sps.constraint_set2_flag);
    EXPECT_FALSE(sps.constraint_set3_flag);
    EXPECT_TRUE(sps.constraint_set4_flag);
    EXPECT_FALSE(sps.constraint_set5_flag);
    EXPECT_EQ(sps.level_idc, 51u);
    EXPECT_EQ(sps.seq_parameter_set_id, 31u);
    EXPECT_EQ(sps.chroma_format_idc, 2u);
    EXPECT_FALSE(sps.separate_colour_plane_flag);
    EXPECT_EQ(sps.bit_depth_luma_minus8, 2u);
    EXPECT_EQ(sps.bit_depth_chroma_minus8, 1u);
    EXPECT_TRUE(sps.qpprime_y_zero_transform_bypass_flag);
    EXPECT_TRUE(sps.seq_scaling_matrix_present_flag);
    EXPECT_EQ(sps.scaling_lists.size(), 8u);
    EXPECT_EQ(sps.log2_max_frame_num_minus4, 12u);
    EXPECT_EQ(sps.pic_order_cnt_type, 1u);
    EXPECT_TRUE(sps.delta_pic_order_always_zero_flag);
    EXPECT_EQ(sps.offset_for_non_ref_pic, -7);
    EXPECT_EQ(sps.offset_for_top_to_bottom_field, 9);
    EXPECT_EQ(sps.num_ref_frames_in_pic_order_cnt_cycle, 3u);
    EXPECT_EQ(sps.offset_for_ref_frame, (std::vector<int32_t>{3, -4, 5}));
    EXPECT_EQ(sps.max_num_ref_frames, 16u);
    EXPECT_TRUE(sps.gaps_in_frame_num_value_allowed_flag);
    EXPECT_EQ(sps.pic_width_in_mbs_minus1, 44u);
    EXPECT_EQ(sps.pic_height_in_map_units_minus1, 17u);
    EXPECT_FALSE(sps.frame_mbs_only_flag);
    EXPECT_TRUE(sps.mb_adaptive_frame_field_flag);
    EXPECT_TRUE(sps.direct_8x8_inference_flag);
    EXPECT_TRUE(sps.frame_cropping_flag);
    EXPECT_EQ(sps.frame_crop_left_offset, 1u);
    EXPECT_EQ(sps.frame_crop_right_offset, 2u);
    EXPECT_EQ(sps.frame_crop_top_offset, 3u);
    EXPECT_EQ(sps.frame_crop_bottom_offset, 4u);
    EXPECT_TRUE(sps.vui_parameters_present_flag);
    EXPECT_EQ(sps.PicSizeInMapUnits(), 45u * 18u);
}

TEST(Sps, ReadsEveryFieldOfTheVui)
{
    const h264_nal_sps sps = parse(full_sps());
    ASSERT_TRUE(sps.valid);
    const h264_vui& vui = sps.vui;
    EXPECT_EQ(vui.aspect_ratio_idc, 255u);
    EXPECT_EQ(vui.sar_width, 65535u);
    EXPECT_EQ(vui.sar_height, 11u);
    EXPECT_TRUE(vui.overscan_appropriate_flag);
    EXPECT_EQ(vui.video_format, 2u);
    EXPECT_TRUE(vui.video_full_range_flag);
    EXPECT_EQ(vui.colour_primaries, 9u);
    EXPECT_EQ(vui.transfer_characteristics, 16u);
    EXPECT_EQ(vui.matrix_coefficients, 10u);
    EXPECT_EQ(vui.chroma_sample_loc_type_top_field, 4u);
    EXPECT_EQ(vui.chroma_sample_loc_type_bottom_field, 5u);
    EXPECT_EQ(vui.num_units_in_tick, 1001u);
    EXPECT_EQ(vui.time_scale, 4294967295u);
    EXPECT_TRUE(vui.fixed_frame_rate_flag);
    const h264_hrd& nal_hrd = vui.nal_hrd_parameters;
    EXPECT_TRUE(vui.nal_hrd_parameters_present_flag);
    EXPECT_EQ(nal_hrd.cpb_cnt_minus1, 1u);
    EXPECT_EQ(nal_hrd.bit_rate_scale, 3u);
    EXPECT_EQ(nal_hrd.cpb_size_scale, 4u);
    ASSERT_EQ(nal_hrd.cpbs.size(), 2u);
    EXPECT_EQ(nal_hrd.cpbs[0].bit_rate_value_minus1, 100u);
    EXPECT_EQ(nal_hrd.cpbs[0].cpb_size_value_minus1, 200u);
    EXPECT_TRUE(nal_hrd.cpbs[0].cbr_flag);
    EXPECT_EQ(nal_hrd.cpbs[1].bit_rate_value_minus1, 4294967294u);
    EXPECT_FALSE(nal_hrd.cpbs[1].cbr_flag);
    EXPECT_EQ(nal_hrd.initial_cpb_removal_delay_length_minus1, 20u);
    EXPECT_EQ(nal_hrd.cpb_removal_delay_length_minus1, 21u);
    EXPECT_EQ(nal_hrd.dpb_output_delay_length_minus1, 22u);
    EXPECT_EQ(nal_hrd.time_offset_length, 23u);
    EXPECT_TRUE(vui.vcl_hrd_parameters_present_flag);
    EXPECT_EQ(vui.vcl_hrd_parameters.bit_rate_scale, 15u);
    EXPECT_EQ(vui.vcl_hrd_parameters.cpbs.size(), 1u);
    EXPECT_TRUE(vui.low_delay_hrd_flag);
    EXPECT_TRUE(vui.pic_struct_present_flag);
    EXPECT_TRUE(vui.bitstream_restriction_flag);
    EXPECT_FALSE(vui.motion_vectors_over_pic_boundaries_flag);
    EXPECT_EQ(vui.max_bytes_per_pic_denom, 3u);
    EXPECT_EQ(vui.max_bits_per_mb_denom, 4u);
    EXPECT_EQ(vui.log2_max_mv_length_horizontal, 11u);
    EXPECT_EQ(vui.log2_max_mv_length_vertical, 12u);
    EXPECT_EQ(vui.max_num_reorder_frames, 5u);
    EXPECT_EQ(vui.max_dec_frame_buffering, 6u);
}

// Each optional part of the VUI alone; the last elements are found only if the parts before them
// took the right number of bits.
TEST(Sps, ReadsEachPartOfTheVuiAlone)
{
    struct vui_case {
        std::string_view name;
        h264_vui_fields vui;
    };
    const vui_case cases[] = {
        {.name = "none", .vui = {}},
        {.name = "aspect ratio by number", .vui = {.aspect_ratio_idc = 254}},
        {.name = "extended aspect ratio", .vui = {.aspect_ratio_idc = 255}},
        {.name = "overscan", .vui = {.overscan_appropriate_flag = false}},
        {.name = "signal", .vui = {.video_signal = h264_vui_fields::video_signal_type{}}},
        {.name = "chroma location", .vui = {.chroma_sample_loc_type = std::array<uint64_t, 2>{}}},
        {.name = "timing", .vui = {.timing = h264_vui_fields::timing_info{}}},
        {.name = "NAL HRD", .vui = {.nal_hrd = h264_hrd_fields{}, .low_delay_hrd_flag = true}},
        {.name = "VCL HRD", .vui = {.vcl_hrd = h264_hrd_fields{}, .low_delay_hrd_flag = true}},
    };
    for (const vui_case& c : cases) {
        SCOPED_TRACE(c.name);
        h264_vui_fields vui = c.vui;
        vui.restriction = h264_vui_fields::bitstream_restriction{.max_dec_frame_buffering = 123};
        const h264_nal_sps sps = parse({.vui = vui});
        EXPECT_TRUE(sps.valid);
        EXPECT_EQ(sps.vui.low_delay_hrd_flag, vui.low_delay_hrd_flag);
        EXPECT_EQ(sps.vui.max_dec_frame_buffering, 123u);
    }
}

TEST(Sps, InfersWhatIsNotSent)
{
    const h264_nal_sps sps = parse({.frame_cropping = std::nullopt});
    ASSERT_TRUE(sps.valid);
    EXPECT_EQ(sps.chroma_format_idc, 1u);
    EXPECT_FALSE(sps.seq_scaling_matrix_present_flag);
    EXPECT_TRUE(sps.scaling_lists.empty());
    EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, 2u);
    EXPECT_TRUE(sps.offset_for_ref_frame.empty());
    EXPECT_FALSE(sps.mb_adaptive_frame_field_flag);
    EXPECT_FALSE(sps.vui_parameters_present_flag);
    EXPECT_EQ(sps.vui.video_format, 5u);
    EXPECT_EQ(sps.vui.nal_hrd_parameters.time_offset_length, 24u);
    EXPECT_TRUE(sps.vui.motion_vectors_over_pic_boundaries_flag);
}

TEST(Sps, ARecordIsReusable)
{
    h264_nal_sps sps = parse(full_sps());
    const bit_writer w = h264_sps_bits({.frame_cropping = std::nullopt});
    h2645_common_bitreader b(w.bytes().data(), w.bytes().data() + w.bytes().size());
    sps.parse(b);
    EXPECT_TRUE(sps.valid);
    EXPECT_EQ(sps.chroma_format_idc, 1u);
    EXPECT_TRUE(sps.scaling_lists.empty());
    EXPECT_FALSE(sps.vui.pic_struct_present_flag);
    EXPECT_EQ(sps.getPicHeight(), 1088u);
}

TEST(Sps, ThirteenProfilesCarryTheChromaFormat)
{
    const uint64_t with_chroma_format[] = {100, 110, 122, 244, 44,  83, 86,
                                           118, 128, 138, 139, 134, 135};
    for (uint64_t profile = 0; profile < 256; profile++) {
        SCOPED_TRACE(profile);
        const bool carries = std::find(std::begin(with_chroma_format), std::end(with_chroma_format),
                                       profile) != std::end(with_chroma_format);
        const h264_sps_fields plain = {.profile_idc = profile};
        const h264_sps_fields high = {.profile_idc = profile,
                                      .high = h264_sps_fields::high_fields{.chroma_format_idc = 2}};
        const h264_nal_sps sps = parse(carries ? high : plain);
        EXPECT_TRUE(sps.valid);
        EXPECT_EQ(sps.profile_idc, profile);
        EXPECT_EQ(sps.chroma_format_idc, carries ? 2u : 1u);
        EXPECT_EQ(sps.pic_width_in_mbs_minus1, 119u);
    }
}

// scaling_list(): the deltas add up modulo 256, and a next scale of 0 repeats the last one.
TEST(Sps, ReadsScalingLists)
{
    h264_delta_scales wrapping(16, 0);
    wrapping[0] = -128;                               // 8 - 128 + 256 = 136
    wrapping[1] = 127;                                // 136 + 127 - 256 = 7
    const h264_delta_scales ends_early = {2, 3, -13}; // 10, 13, then the next scale is 0
    const h264_delta_scales use_default = {-8};
    h264_delta_scales rising(64, 1);

    const h264_nal_sps sps = parse({
        .profile_idc = 100,
        .high =
            h264_sps_fields::high_fields{
                .scaling_lists =
                    std::vector<h264_delta_scales>{
                        wrapping, ends_early, use_default, {}, {}, {}, rising, {}}},
    });
    ASSERT_TRUE(sps.valid);
    ASSERT_EQ(sps.scaling_lists.size(), 8u);

    const h264_scaling_list& wrapped = sps.scaling_lists[0];
    EXPECT_TRUE(wrapped.present);
    EXPECT_EQ(wrapped.scale[0], 136);
    EXPECT_EQ(wrapped.scale[1], 7);
    EXPECT_EQ(wrapped.scale[15], 7);

    const h264_scaling_list& early = sps.scaling_lists[1];
    EXPECT_FALSE(early.use_default);
    EXPECT_EQ(early.scale[0], 10);
    EXPECT_EQ(early.scale[1], 13);
    EXPECT_EQ(early.scale[2], 13);
    EXPECT_EQ(early.scale[15], 13);

    EXPECT_TRUE(sps.scaling_lists[2].present);
    EXPECT_TRUE(sps.scaling_lists[2].use_default);
    EXPECT_FALSE(sps.scaling_lists[3].present);

    const h264_scaling_list& rose = sps.scaling_lists[6];
    EXPECT_EQ(rose.scale[0], 9);
    EXPECT_EQ(rose.scale[63], 72);
}

TEST(Sps, FourFourFourHasTwelveScalingLists)
{
    for (const uint64_t idc : {0u, 1u, 2u, 3u}) {
        SCOPED_TRACE(idc);
        const size_t lists = idc == 3 ? 12 : 8;
        std::vector<h264_delta_scales> absent(lists);
        absent.back() = {-8};
        const h264_nal_sps sps = parse({.profile_idc = 244,
                                        .high = h264_sps_fields::high_fields{
                                            .chroma_format_idc = idc, .scaling_lists = absent}});
        EXPECT_TRUE(sps.valid);
        ASSERT_EQ(sps.scaling_lists.size(), lists);
        EXPECT_TRUE(sps.scaling_lists.back().use_default);
        EXPECT_EQ(sps.getPicWidth(), 1920u);
    }
}

struct size_case {
    std::string_view name;
    h264_sps_fields fields;
    uint32_t width, height;
};

h264_sps_fields with_chroma(uint64_t chroma_format_idc, bool separate_planes, bool frame_mbs_only)
{
    return {
        .profile_idc = 244,
        .high = h264_sps_fields::high_fields{.chroma_format_idc = chroma_format_idc,
                                             .separate_colour_plane_flag = separate_planes},
        .pic_width_in_mbs_minus1 = 9,
        .pic_height_in_map_units_minus1 = 9,
        .frame_mbs_only_flag = frame_mbs_only,
        .frame_cropping = h264_sps_fields::crop{.left = 1, .right = 2, .top = 3, .bottom = 4},
    };
}

TEST(Sps, PictureSizeIsTheFrameLessItsCropping)
{
    using crop = h264_sps_fields::crop;
    constexpr uint64_t top = 4294967294; // the largest number ue(v) holds
    const size_case cases[] = {
        {.name = "1080p", .fields = {}, .width = 1920, .height = 1080},
        {.name = "1080 in fields, uncropped",
         .fields = {.pic_height_in_map_units_minus1 = 33,
                    .frame_mbs_only_flag = false,
                    .frame_cropping = std::nullopt},
         .width = 1920,
         .height = 1088},
        {.name = "1080 in fields, cropped by 2 units of 4",
         .fields = {.pic_height_in_map_units_minus1 = 33,
                    .frame_mbs_only_flag = false,
                    .frame_cropping = crop{.bottom = 2}},
         .width = 1920,
         .height = 1080},
        {.name = "one macroblock",
         .fields = {.pic_width_in_mbs_minus1 = 0,
                    .pic_height_in_map_units_minus1 = 0,
                    .frame_cropping = std::nullopt},
         .width = 16,
         .height = 16},
        {.name = "4:0:0", .fields = with_chroma(0, false, true), .width = 157, .height = 153},
        {.name = "4:2:0", .fields = with_chroma(1, false, true), .width = 154, .height = 146},
        {.name = "4:2:2", .fields = with_chroma(2, false, true), .width = 154, .height = 153},
        {.name = "4:4:4", .fields = with_chroma(3, false, true), .width = 157, .height = 153},
        {.name = "4:4:4 planes", .fields = with_chroma(3, true, true), .width = 157, .height = 153},
        {.name = "4:0:0 fields",
         .fields = with_chroma(0, false, false),
         .width = 157,
         .height = 306},
        {.name = "4:2:0 fields",
         .fields = with_chroma(1, false, false),
         .width = 154,
         .height = 292},
        {.name = "4:2:2 fields",
         .fields = with_chroma(2, false, false),
         .width = 154,
         .height = 306},
        {.name = "4:4:4 fields",
         .fields = with_chroma(3, false, false),
         .width = 157,
         .height = 306},
        {.name = "one column and two lines left",
         .fields = {.frame_cropping = crop{.left = 900, .right = 59, .top = 300, .bottom = 243}},
         .width = 2,
         .height = 2},
        {.name = "cropped to nothing",
         .fields = {.frame_cropping = crop{.left = 900, .right = 60, .top = 300, .bottom = 244}},
         .width = 0,
         .height = 0},
        {.name = "cropped past nothing",
         .fields = {.frame_cropping = crop{.left = 900, .right = 61, .top = 300, .bottom = 245}},
         .width = 0,
         .height = 0},
        {.name = "crop offsets whose sum leaves 32 bits",
         .fields = {.frame_cropping = crop{.left = top, .right = top, .top = top, .bottom = top}},
         .width = 0,
         .height = 0},
        {.name = "the largest size below 2^32",
         .fields = {.pic_width_in_mbs_minus1 = 0x0FFFFFFE,
                    .pic_height_in_map_units_minus1 = 0x0FFFFFFE,
                    .frame_cropping = std::nullopt},
         .width = 0xFFFFFFF0,
         .height = 0xFFFFFFF0},
        {.name = "a size of 2^32",
         .fields = {.pic_width_in_mbs_minus1 = 0x0FFFFFFF,
                    .pic_height_in_map_units_minus1 = 0x0FFFFFFF,
                    .frame_cropping = std::nullopt},
         .width = 0,
         .height = 0},
        {.name = "a size of 2^32 cropped by 2",
         .fields = {.pic_width_in_mbs_minus1 = 0x0FFFFFFF,
                    .pic_height_in_map_units_minus1 = 0x0FFFFFFF,
                    .frame_cropping = crop{.right = 1, .bottom = 1}},
         .width = 0xFFFFFFFE,
         .height = 0xFFFFFFFE},
        {.name = "the largest fields, in fields",
         .fields = {.pic_width_in_mbs_minus1 = top,
                    .pic_height_in_map_units_minus1 = top,
                    .frame_mbs_only_flag = false,
                    .frame_cropping = std::nullopt},
         .width = 0,
         .height = 0},
    };
    for (const size_case& c : cases) {
        SCOPED_TRACE(c.name);
        const h264_nal_sps sps = parse(c.fields);
        EXPECT_TRUE(sps.valid);
        EXPECT_EQ(sps.getPicWidth(), c.width);
        EXPECT_EQ(sps.getPicHeight(), c.height);
    }
}

struct limit_case {
    std::string_view name;
    h264_sps_fields fields;
    bool valid;
};

h264_sps_fields with_high(const h264_sps_fields::high_fields& high)
{
    return {.profile_idc = 244, .high = high};
}

h264_sps_fields with_delta_scale(int64_t first)
{
    h264_delta_scales list(16, 0);
    list[0] = first;
    std::vector<h264_delta_scales> lists(8);
    lists[5] = list;
    return with_high({.scaling_lists = lists});
}

h264_sps_fields with_cpbs(size_t count)
{
    const std::vector<h264_hrd_fields::cpb> cpbs(count);
    return {.vui = h264_vui_fields{.vcl_hrd = h264_hrd_fields{.cpbs = cpbs}}};
}

h264_sps_fields with_poc_cycle(size_t length)
{
    return {.pic_order_cnt_type = 1, .offset_for_ref_frame = std::vector<int64_t>(length, -1)};
}

TEST(Sps, KeepsToTheLimitsThatParsingRestsOn)
{
    const limit_case cases[] = {
        {.name = "seq_parameter_set_id 30", .fields = {.seq_parameter_set_id = 30}, .valid = true},
        {.name = "seq_parameter_set_id 31", .fields = {.seq_parameter_set_id = 31}, .valid = true},
        {.name = "seq_parameter_set_id 32", .fields = {.seq_parameter_set_id = 32}, .valid = false},
        {.name = "chroma_format_idc 3",
         .fields = with_high({.chroma_format_idc = 3}),
         .valid = true},
        {.name = "chroma_format_idc 4",
         .fields = with_high({.chroma_format_idc = 4}),
         .valid = false},
        {.name = "log2_max_frame_num_minus4 11",
         .fields = {.log2_max_frame_num_minus4 = 11},
         .valid = true},
        {.name = "log2_max_frame_num_minus4 12",
         .fields = {.log2_max_frame_num_minus4 = 12},
         .valid = true},
        {.name = "log2_max_frame_num_minus4 13",
         .fields = {.log2_max_frame_num_minus4 = 13},
         .valid = false},
        {.name = "pic_order_cnt_type 2", .fields = {.pic_order_cnt_type = 2}, .valid = true},
        {.name = "pic_order_cnt_type 3", .fields = {.pic_order_cnt_type = 3}, .valid = false},
        {.name = "log2_max_pic_order_cnt_lsb_minus4 11",
         .fields = {.log2_max_pic_order_cnt_lsb_minus4 = 11},
         .valid = true},
        {.name = "log2_max_pic_order_cnt_lsb_minus4 12",
         .fields = {.log2_max_pic_order_cnt_lsb_minus4 = 12},
         .valid = true},
        {.name = "log2_max_pic_order_cnt_lsb_minus4 13",
         .fields = {.log2_max_pic_order_cnt_lsb_minus4 = 13},
         .valid = false},
        {.name = "cycle of 0", .fields = with_poc_cycle(0), .valid = true},
        {.name = "cycle of 254", .fields = with_poc_cycle(254), .valid = true},
        {.name = "cycle of 255", .fields = with_poc_cycle(255), .valid = true},
        {.name = "cycle of 256", .fields = with_poc_cycle(256), .valid = false},
        {.name = "delta_scale -127", .fields = with_delta_scale(-127), .valid = true},
        {.name = "delta_scale -128", .fields = with_delta_scale(-128), .valid = true},
        {.name = "delta_scale -129", .fields = with_delta_scale(-129), .valid = false},
        {.name = "delta_scale 126", .fields = with_delta_scale(126), .valid = true},
        {.name = "delta_scale 127", .fields = with_delta_scale(127), .valid = true},
        {.name = "delta_scale 128", .fields = with_delta_scale(128), .valid = false},
        {.name = "cpb_cnt_minus1 30", .fields = with_cpbs(31), .valid = true},
        {.name = "cpb_cnt_minus1 31", .fields = with_cpbs(32), .valid = true},
        {.name = "cpb_cnt_minus1 32", .fields = with_cpbs(33), .valid = false},
        {.name = "no limit on the bit depths",
         .fields = with_high({.bit_depth_luma_minus8 = 99, .bit_depth_chroma_minus8 = 4294967294}),
         .valid = true},
        {.name = "no limit on max_num_ref_frames",
         .fields = {.max_num_ref_frames = 4294967294},
         .valid = true},
        {.name = "no limit on the sampling locations",
         .fields = {.vui = h264_vui_fields{.chroma_sample_loc_type =
                                               std::array<uint64_t, 2>{6, 4294967294}}},
         .valid = true},
        {.name = "a number with 32 leading zeros",
         .fields = {.max_num_ref_frames = 4294967295},
         .valid = false},
    };
    for (const limit_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(parse(c.fields).valid, c.valid);
    }
}

// The set begins at each bit of a byte in turn, so that cutting at every byte cuts at every bit.
TEST(Sps, IsValidOnceItsLastBitIsThere)
{
    const std::vector<h264_sps_fields> sets = {{}, {.frame_cropping = std::nullopt}, full_sps()};
    for (const h264_sps_fields& fields : sets) {
        const bit_writer w = h264_sps_bits(fields);
        for (uint32_t shift = 0; shift < 8; shift++) {
            bit_writer shifted = h264_at_bit_offset(static_cast<int>(shift), w);
            shifted.rbsp_trailing_bits();
            for (size_t length = 0; length <= shifted.bytes().size(); length++) {
                const std::vector<uint8_t> cut(shifted.bytes().begin(),
                                               shifted.bytes().begin() +
                                                   static_cast<std::ptrdiff_t>(length));
                h2645_common_bitreader b(cut.data(), cut.data() + cut.size());
                b.skip(shift);
                h264_nal_sps sps;
                sps.parse(b);
                ASSERT_EQ(sps.valid, length * 8 >= shift + w.bits())
                    << "shift " << shift << " length " << length;
            }
        }
    }
}

TEST(Sps, DoesNotAskForTrailingBits)
{
    h264_sps_fields fields = {};
    bit_writer w = h264_sps_bits(fields);
    w.align(0).u(32, 0).u(32, 0xDEADBEEF);
    h2645_common_bitreader b(w.bytes().data(), w.bytes().data() + w.bytes().size());
    h264_nal_sps sps;
    sps.parse(b);
    EXPECT_TRUE(sps.valid);
}

TEST(Sps, BuilderMakesSetsOfASize)
{
    const h264_nal_sps sps = parse(h264_sps_of_size(854, 480));
    EXPECT_TRUE(sps.valid);
    EXPECT_EQ(sps.getPicWidth(), 854u);
    EXPECT_EQ(sps.getPicHeight(), 480u);
}

} // namespace

} // namespace tremsa
