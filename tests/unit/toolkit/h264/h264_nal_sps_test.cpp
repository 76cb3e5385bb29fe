#include "toolkit/h264/h264_nal_sps.hpp"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/h264_builder.hpp"
#include "tests/unit/toolkit/h264/h264_text.hpp"

namespace tremsa
{

namespace
{

h264_nal_sps parse(const h264_sps_fields& fields)
{
    return read<h264_nal_sps>(h264_sps_bits(fields).bytes());
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
                .scaling_lists =
                    std::vector<h264_delta_scales>{
                        h264_delta_scales(16, 1), {}, {-8}, {}, {}, {}, {}, {2, -10}},
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

TEST(Sps, ReadsEveryField)
{
    EXPECT_EQ(text_of(parse(full_sps())),
              "profile_idc=100 constraint_set0_flag=1 constraint_set2_flag=1 "
              "constraint_set4_flag=1 level_idc=51 seq_parameter_set_id=31 chroma_format_idc=2 "
              "bit_depth_luma_minus8=2 bit_depth_chroma_minus8=1 "
              "qpprime_y_zero_transform_bypass_flag=1 seq_scaling_matrix_present_flag=1 "
              "scaling_lists=9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24|-|default|-|-|-|-|10.. "
              "log2_max_frame_num_minus4=12 pic_order_cnt_type=1 "
              "delta_pic_order_always_zero_flag=1 offset_for_non_ref_pic=-7 "
              "offset_for_top_to_bottom_field=9 num_ref_frames_in_pic_order_cnt_cycle=3 "
              "offset_for_ref_frame=3,-4,5 max_num_ref_frames=16 "
              "gaps_in_frame_num_value_allowed_flag=1 pic_width_in_mbs_minus1=44 "
              "pic_height_in_map_units_minus1=17 mb_adaptive_frame_field_flag=1 "
              "direct_8x8_inference_flag=1 frame_cropping_flag=1 frame_crop_left_offset=1 "
              "frame_crop_right_offset=2 frame_crop_top_offset=3 frame_crop_bottom_offset=4 "
              "vui_parameters_present_flag=1 aspect_ratio_info_present_flag=1 "
              "aspect_ratio_idc=255 sar_width=65535 sar_height=11 overscan_info_present_flag=1 "
              "overscan_appropriate_flag=1 video_signal_type_present_flag=1 video_format=2 "
              "video_full_range_flag=1 colour_description_present_flag=1 colour_primaries=9 "
              "transfer_characteristics=16 matrix_coefficients=10 "
              "chroma_loc_info_present_flag=1 chroma_sample_loc_type_top_field=4 "
              "chroma_sample_loc_type_bottom_field=5 timing_info_present_flag=1 "
              "num_units_in_tick=1001 time_scale=4294967295 fixed_frame_rate_flag=1 "
              "nal_hrd_parameters_present_flag=1 cpb_cnt_minus1=1 bit_rate_scale=3 "
              "cpb_size_scale=4 cpbs=100/200/cbr,4294967294/7 "
              "initial_cpb_removal_delay_length_minus1=20 cpb_removal_delay_length_minus1=21 "
              "dpb_output_delay_length_minus1=22 time_offset_length=23 "
              "vcl_hrd_parameters_present_flag=1 bit_rate_scale=15 cpbs=0/0 "
              "low_delay_hrd_flag=1 pic_struct_present_flag=1 bitstream_restriction_flag=1 "
              "motion_vectors_over_pic_boundaries_flag=0 max_bytes_per_pic_denom=3 "
              "max_bits_per_mb_denom=4 log2_max_mv_length_horizontal=11 "
              "log2_max_mv_length_vertical=12 max_num_reorder_frames=5 "
              "max_dec_frame_buffering=6");
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

TEST(Sps, InfersWhatIsNotSentWhateverTheRecordHeldBefore)
{
    const bit_writer w = h264_sps_bits({.frame_cropping = std::nullopt});
    h2645_common_bitreader b = reader_of(w.bytes());
    h264_nal_sps sps = parse(full_sps());
    sps.parse(b);
    EXPECT_EQ(text_of(sps), "profile_idc=77 level_idc=40 log2_max_pic_order_cnt_lsb_minus4=2 "
                            "max_num_ref_frames=4 pic_width_in_mbs_minus1=119 "
                            "pic_height_in_map_units_minus1=67 frame_mbs_only_flag=1 "
                            "direct_8x8_inference_flag=1");
    EXPECT_EQ(sps.chroma_format_idc, 1u);
    EXPECT_EQ(sps.vui.video_format, 5u);
    EXPECT_EQ(sps.vui.nal_hrd_parameters.time_offset_length, 24u);
    EXPECT_TRUE(sps.vui.motion_vectors_over_pic_boundaries_flag);
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
    EXPECT_TRUE(sps.valid);
    EXPECT_EQ(
        text_of(sps.scaling_lists),
        "136,7..|10,13..|default|-|-|-|9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31,32,33,34,35,36,37,38,39,40,41,42,43,44,45,46,47,48,49,50,51,52,53,54,55,56,57,58,59,60,61,62,63,64,65,66,67,68,69,70,71,72|-");
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

TEST(Sps, CroppingCountsInChromaSamplesAndInLinesOfBothFields)
{
    struct {
        uint64_t chroma_format_idc;
        bool separate_colour_plane_flag;
        uint32_t width, frame_height, fields_height;
    } const cases[] = {
        {0, false, 157, 153, 306}, {1, false, 154, 146, 292}, {2, false, 154, 153, 306},
        {3, false, 157, 153, 306}, {3, true, 157, 153, 306},
    };
    for (const auto& c : cases) {
        for (const bool frame_mbs_only : {true, false}) {
            SCOPED_TRACE(testing::Message() << c.chroma_format_idc << " " << frame_mbs_only);
            const h264_nal_sps sps = parse({
                .profile_idc = 244,
                .high = h264_sps_fields::high_fields{.chroma_format_idc = c.chroma_format_idc,
                                                     .separate_colour_plane_flag =
                                                         c.separate_colour_plane_flag},
                .pic_width_in_mbs_minus1 = 9,
                .pic_height_in_map_units_minus1 = 9,
                .frame_mbs_only_flag = frame_mbs_only,
                .frame_cropping =
                    h264_sps_fields::crop{.left = 1, .right = 2, .top = 3, .bottom = 4},
            });
            EXPECT_TRUE(sps.valid);
            EXPECT_EQ(sps.getPicWidth(), c.width);
            EXPECT_EQ(sps.getPicHeight(), frame_mbs_only ? c.frame_height : c.fields_height);
        }
    }
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

// Elements that have a last value: it and the one before it are read, the one behind it is refused.
TEST(Sps, KeepsToTheLimitsThatParsingRestsOn)
{
    using fields = h264_sps_fields;
    struct {
        std::string_view name;
        uint64_t last;
        fields (*with)(uint64_t);
    } const limits[] = {
        {"seq_parameter_set_id", 31,
         [](uint64_t v) {
             return fields{.seq_parameter_set_id = v};
         }},
        {"chroma_format_idc", 3,
         [](uint64_t v) {
             return with_high({.chroma_format_idc = v});
         }},
        {"log2_max_frame_num_minus4", 12,
         [](uint64_t v) {
             return fields{.log2_max_frame_num_minus4 = v};
         }},
        {"pic_order_cnt_type", 2,
         [](uint64_t v) {
             return fields{.pic_order_cnt_type = v};
         }},
        {"log2_max_pic_order_cnt_lsb_minus4", 12,
         [](uint64_t v) {
             return fields{.log2_max_pic_order_cnt_lsb_minus4 = v};
         }},
        {"num_ref_frames_in_pic_order_cnt_cycle", 255, with_poc_cycle},
        {"delta_scale", 127,
         [](uint64_t v) {
             return with_delta_scale(static_cast<int64_t>(v));
         }},
        {"-1 - delta_scale", 127,
         [](uint64_t v) {
             return with_delta_scale(-1 - static_cast<int64_t>(v));
         }},
        {"cpb_cnt_minus1", 31,
         [](uint64_t v) {
             return with_cpbs(v + 1);
         }},
        {"any number: 31 leading zeros", 4294967294,
         [](uint64_t v) {
             return fields{.max_num_ref_frames = v};
         }},
    };
    for (const auto& limit : limits) {
        SCOPED_TRACE(limit.name);
        EXPECT_TRUE(parse(limit.with(limit.last - 1)).valid);
        EXPECT_TRUE(parse(limit.with(limit.last)).valid);
        EXPECT_FALSE(parse(limit.with(limit.last + 1)).valid);
    }
}

TEST(Sps, ReadsPastValuesThatNothingRestsOn)
{
    struct {
        std::string_view name;
        h264_sps_fields fields;
    } const cases[] = {
        {.name = "bit depths",
         .fields = with_high({.bit_depth_luma_minus8 = 99, .bit_depth_chroma_minus8 = 4294967294})},
        {.name = "cycle of 0", .fields = with_poc_cycle(0)},
        {.name = "sampling locations",
         .fields = {.vui = h264_vui_fields{.chroma_sample_loc_type =
                                               std::array<uint64_t, 2>{6, 4294967294}}}},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(parse(c.fields).valid) << c.name;
}

TEST(Sps, IsValidOnceItsLastBitIsThere)
{
    for (const h264_sps_fields& fields : {h264_sps_fields{}, full_sps()})
        expect_valid_once_whole(h264_sps_bits(fields), [](h2645_common_bitreader& b) {
            h264_nal_sps sps;
            sps.parse(b);
            return sps.valid;
        });
}

TEST(Sps, DoesNotAskForTrailingBits)
{
    bit_writer w = h264_sps_bits({});
    w.align(0).u(32, 0).u(32, 0xDEADBEEF);
    EXPECT_TRUE(read<h264_nal_sps>(w.bytes()).valid);
}

} // namespace

} // namespace tremsa
