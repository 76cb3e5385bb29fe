// Parameter sets and slice headers as an encoder (libx264) wrote them, with the values that an
// independent reader of the syntax reported for the same bytes. The pictures were 25 Hz test
// patterns of the sizes given; only the first bytes of each slice are kept.
#include <iterator>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/h264/h2645_common_base_store.hpp"
#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h2645_common_nal_reader.hpp"
#include "toolkit/h264/h264_nal.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_slice_header.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"

namespace tremsa
{

namespace
{

struct encoder_slice {
    std::string_view unit;    // hexadecimal, from the header byte on
    uint64_t header_bits = 0; // of slice_header(), without the unit's header
    uint32_t first_mb_in_slice = 0;
    uint32_t slice_type = 0;
    uint32_t frame_num = 0;
    uint32_t idr_pic_id = 0;
    uint32_t pic_order_cnt_lsb = 0;
    bool direct_spatial_mv_pred_flag = false;
    bool num_ref_idx_active_override_flag = false;
    uint32_t num_ref_idx_l0_active_minus1 = 0;
    size_t modifications_l0 = 0; // number of commands
    size_t modifications_l1 = 0;
    uint32_t luma_log2_weight_denom = 0;
    int32_t luma_weight = 0; // of reference index 0 of list 0
    int32_t luma_offset = 0;
    size_t markings = 0;
    uint32_t cabac_init_idc = 0;
    int32_t slice_qp_delta = 0;
    uint32_t disable_deblocking_filter_idc = 0;
    int32_t slice_alpha_c0_offset_div2 = 0;
    int32_t slice_beta_offset_div2 = 0;
};

struct encoder_stream {
    std::string_view name;
    std::string_view sps; // hexadecimal, from the header byte on
    std::string_view pps;
    uint64_t sps_bits = 0; // in front of rbsp_trailing_bits(), without the unit's header
    uint64_t pps_bits = 0;
    uint32_t width = 0; // as the encoder was told
    uint32_t height = 0;
    uint32_t profile_idc = 0;
    uint32_t level_idc = 0;
    uint32_t chroma_format_idc = 1;
    uint32_t bit_depth_luma_minus8 = 0;
    uint32_t pic_order_cnt_type = 0;
    uint32_t log2_max_pic_order_cnt_lsb_minus4 = 0;
    uint32_t max_num_ref_frames = 0;
    bool mb_adaptive_frame_field_flag = false;
    uint32_t max_dec_frame_buffering = 0;
    bool entropy_coding_mode_flag = false;
    uint32_t num_ref_idx_l0_default_active_minus1 = 0;
    bool weighted_pred_flag = false;
    uint32_t weighted_bipred_idc = 0;
    int32_t pic_init_qp_minus26 = 0;
    int32_t chroma_qp_index_offset = 0;
    bool transform_8x8_mode_flag = false;
    int32_t second_chroma_qp_index_offset = 0;
    std::vector<encoder_slice> slices{};
};

const std::vector<encoder_stream> encoder_streams = {
    {
        .name = "Constrained Baseline, no B slices, no cropping",
        .sps = "67 42 c0 0b d9 02 c4 ec 04 40 00 00 03 00 40 00 00 0c 83 c5 0a 92",
        .pps = "68 cb 83 cb 20",
        .sps_bits = 158,
        .pps_bits = 26,
        .width = 176,
        .height = 144,
        .profile_idc = 66,
        .level_idc = 11,
        .pic_order_cnt_type = 2,
        .max_num_ref_frames = 3,
        .max_dec_frame_buffering = 3,
        .num_ref_idx_l0_default_active_minus1 = 2,
        .pic_init_qp_minus26 = -3,
        .chroma_qp_index_offset = -2,
        .second_chroma_qp_index_offset = -2,
        .slices =
            {
                {.unit = "65 88 84 1d f1 08 8a c1",
                 .header_bits = 26,
                 .slice_type = 7,
                 .slice_qp_delta = 7},
                {.unit = "41 9a 38 10 fe 17 ee e7",
                 .header_bits = 27,
                 .slice_type = 5,
                 .frame_num = 1,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 8},
            },
    },
    {
        .name = "Main with B slices",
        .sps = "67 4d 40 0d ec a0 a0 fd 80 88 00 00 03 00 08 00 00 03 01 90 78 a1 4c b0",
        .pps = "68 eb e3 cb 20",
        .sps_bits = 163,
        .pps_bits = 26,
        .width = 320,
        .height = 240,
        .profile_idc = 77,
        .level_idc = 13,
        .log2_max_pic_order_cnt_lsb_minus4 = 2,
        .max_num_ref_frames = 4,
        .max_dec_frame_buffering = 4,
        .entropy_coding_mode_flag = true,
        .num_ref_idx_l0_default_active_minus1 = 2,
        .weighted_pred_flag = true,
        .weighted_bipred_idc = 2,
        .pic_init_qp_minus26 = -3,
        .chroma_qp_index_offset = -2,
        .second_chroma_qp_index_offset = -2,
        .slices =
            {
                {.unit = "65 88 84 00 67 5f 7e 7a",
                 .header_bits = 32,
                 .slice_type = 7,
                 .slice_qp_delta = 6},
                {.unit = "41 9a 23 6c 47 7f ca 37 c7",
                 .header_bits = 36,
                 .slice_type = 5,
                 .frame_num = 1,
                 .pic_order_cnt_lsb = 6,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 7},
                {.unit = "41 9e 41 78 84 bf ef 02 a2",
                 .header_bits = 37,
                 .slice_type = 6,
                 .frame_num = 2,
                 .pic_order_cnt_lsb = 2,
                 .direct_spatial_mv_pred_flag = true,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 9},
                {.unit = "41 9a 65 49 a8 41 68 99 4c 14 f0 b7 f6 d9 7c",
                 .header_bits = 88,
                 .slice_type = 5,
                 .frame_num = 3,
                 .pic_order_cnt_lsb = 10,
                 .num_ref_idx_active_override_flag = true,
                 .num_ref_idx_l0_active_minus1 = 3,
                 .modifications_l0 = 4,
                 .markings = 1,
                 .slice_qp_delta = 11},
            },
    },
    {
        .name = "High, cropped to 1080 lines, with NAL HRD parameters",
        .sps = "67 64 00 28 ac b4 03 c0 11 3f 2e 02 20 00 00 03 00 20 00 00 06 4c 0c 00 "
               "61 a8 00 c3 54 d8 40 0f 18 32 a0",
        .pps = "68 ce 3c b0",
        .sps_bits = 258,
        .pps_bits = 19,
        .width = 1920,
        .height = 1080,
        .profile_idc = 100,
        .level_idc = 40,
        .pic_order_cnt_type = 2,
        .max_num_ref_frames = 1,
        .max_dec_frame_buffering = 1,
        .transform_8x8_mode_flag = true,
        .slices =
            {
                {.unit = "65 88 84 06 48 29 89 07",
                 .header_bits = 30,
                 .slice_type = 7,
                 .slice_qp_delta = 25,
                 .disable_deblocking_filter_idc = 1},
                {.unit = "41 9a 20 19 2f 50 96 da",
                 .header_bits = 28,
                 .slice_type = 5,
                 .frame_num = 1,
                 .slice_qp_delta = 25,
                 .disable_deblocking_filter_idc = 1},
            },
    },
    {
        .name = "High, frames of macroblock-adaptive fields",
        .sps = "67 64 00 1e ac d9 40 b4 24 d8 08 80 00 00 03 00 80 00 00 19 0f 8a 14 cb",
        .pps = "68 fb a3 cb 22 c0",
        .sps_bits = 175,
        .pps_bits = 33,
        .width = 720,
        .height = 576,
        .profile_idc = 100,
        .level_idc = 30,
        .log2_max_pic_order_cnt_lsb_minus4 = 2,
        .max_num_ref_frames = 4,
        .mb_adaptive_frame_field_flag = true,
        .max_dec_frame_buffering = 4,
        .entropy_coding_mode_flag = true,
        .num_ref_idx_l0_default_active_minus1 = 2,
        .weighted_bipred_idc = 2,
        .pic_init_qp_minus26 = -3,
        .chroma_qp_index_offset = -2,
        .transform_8x8_mode_flag = true,
        .second_chroma_qp_index_offset = -2,
        .slices =
            {
                {.unit = "65 88 82 0b 06 7f c4 ff 9e",
                 .header_bits = 36,
                 .slice_type = 7,
                 .pic_order_cnt_lsb = 1,
                 .slice_qp_delta = 6},
                {.unit = "41 9a 20 de 47 7f c5 46 5f",
                 .header_bits = 36,
                 .slice_type = 5,
                 .frame_num = 1,
                 .pic_order_cnt_lsb = 3,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 7},
            },
    },
    {
        .name = "Main, four slices a picture",
        .sps = "67 4d 40 0d ec a0 b0 4b 60 22 00 00 03 00 02 00 00 03 00 64 1e 28 53 2c",
        .pps = "68 eb e3 cb 20",
        .sps_bits = 165,
        .pps_bits = 26,
        .width = 352,
        .height = 288,
        .profile_idc = 77,
        .level_idc = 13,
        .log2_max_pic_order_cnt_lsb_minus4 = 2,
        .max_num_ref_frames = 4,
        .max_dec_frame_buffering = 4,
        .entropy_coding_mode_flag = true,
        .num_ref_idx_l0_default_active_minus1 = 2,
        .weighted_pred_flag = true,
        .weighted_bipred_idc = 2,
        .pic_init_qp_minus26 = -3,
        .chroma_qp_index_offset = -2,
        .second_chroma_qp_index_offset = -2,
        .slices =
            {
                {.unit = "65 88 84 00 77 68 b3 f7",
                 .header_bits = 32,
                 .slice_type = 7,
                 .slice_qp_delta = 7},
                {.unit = "65 03 78 88 40 03 3f fe df 32",
                 .header_bits = 46,
                 .first_mb_in_slice = 110,
                 .slice_type = 7,
                 .slice_qp_delta = -12},
                {.unit = "65 01 8e 22 10 00 cf fe df 32",
                 .header_bits = 48,
                 .first_mb_in_slice = 198,
                 .slice_type = 7,
                 .slice_qp_delta = -12},
                {.unit = "65 00 9a 88 84 00 33 ff fe df 32",
                 .header_bits = 50,
                 .first_mb_in_slice = 308,
                 .slice_type = 7,
                 .slice_qp_delta = -12},
                {.unit = "41 9a 23 6c 42 df d5 38 88",
                 .header_bits = 38,
                 .slice_type = 5,
                 .frame_num = 1,
                 .pic_order_cnt_lsb = 6,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 11},
                {.unit = "41 9e 41 78 85 bf f1 10 80",
                 .header_bits = 37,
                 .slice_type = 6,
                 .frame_num = 2,
                 .pic_order_cnt_lsb = 2,
                 .direct_spatial_mv_pred_flag = true,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 11},
            },
    },
    {
        .name = "High 4:2:2, 10 bits, cropped",
        .sps = "67 7a 00 1e b6 cd 94 0a 02 ff 89 c0 44 00 00 03 00 04 00 00 03 00 c8 3c "
               "58 b6 58",
        .pps = "68 eb e3 cb 22 c0",
        .sps_bits = 188,
        .pps_bits = 33,
        .width = 640,
        .height = 360,
        .profile_idc = 122,
        .level_idc = 30,
        .chroma_format_idc = 2,
        .bit_depth_luma_minus8 = 2,
        .log2_max_pic_order_cnt_lsb_minus4 = 2,
        .max_num_ref_frames = 4,
        .max_dec_frame_buffering = 4,
        .entropy_coding_mode_flag = true,
        .num_ref_idx_l0_default_active_minus1 = 2,
        .weighted_pred_flag = true,
        .weighted_bipred_idc = 2,
        .pic_init_qp_minus26 = -3,
        .chroma_qp_index_offset = -2,
        .transform_8x8_mode_flag = true,
        .second_chroma_qp_index_offset = -2,
        .slices =
            {
                {.unit = "65 88 84 00 77 d2 ac fd",
                 .header_bits = 32,
                 .slice_type = 7,
                 .slice_qp_delta = 7},
                {.unit = "41 9a 23 6c 42 df d5 38 4d",
                 .header_bits = 38,
                 .slice_type = 5,
                 .frame_num = 1,
                 .pic_order_cnt_lsb = 6,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 11},
                {.unit = "41 9e 41 78 85 bf f1 10 6f",
                 .header_bits = 37,
                 .slice_type = 6,
                 .frame_num = 2,
                 .pic_order_cnt_lsb = 2,
                 .direct_spatial_mv_pred_flag = true,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 11},
            },
    },
    {
        .name = "High 4:4:4 Predictive, 8 bits, cropped",
        .sps = "67 f4 00 0b 91 9b 28 69 fc 4c 6e 02 20 00 00 03 00 20 00 00 06 41 e2 85 "
               "32 c0",
        .pps = "68 eb e3 c4 4c 00 04 40",
        .sps_bits = 185,
        .pps_bits = 49,
        .width = 200,
        .height = 100,
        .profile_idc = 244,
        .level_idc = 11,
        .chroma_format_idc = 3,
        .log2_max_pic_order_cnt_lsb_minus4 = 2,
        .max_num_ref_frames = 4,
        .max_dec_frame_buffering = 4,
        .entropy_coding_mode_flag = true,
        .num_ref_idx_l0_default_active_minus1 = 2,
        .weighted_pred_flag = true,
        .weighted_bipred_idc = 2,
        .pic_init_qp_minus26 = -3,
        .chroma_qp_index_offset = 4,
        .transform_8x8_mode_flag = true,
        .second_chroma_qp_index_offset = 4,
        .slices =
            {
                {.unit = "65 88 84 00 21 ff d3 d6 66",
                 .header_bits = 34,
                 .slice_type = 7,
                 .slice_qp_delta = 8},
                {.unit = "41 9a 23 6c 42 df cd b4 7d",
                 .header_bits = 38,
                 .slice_type = 5,
                 .frame_num = 1,
                 .pic_order_cnt_lsb = 6,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 11},
                {.unit = "41 9e 41 78 85 3f fe ae 60",
                 .header_bits = 37,
                 .slice_type = 6,
                 .frame_num = 2,
                 .pic_order_cnt_lsb = 2,
                 .direct_spatial_mv_pred_flag = true,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 10},
            },
    },
    {
        .name = "High with scaling lists, weights, reordering and MMCO",
        .sps = "67 64 00 0b ac d9 42 84 7e 5c 04 40 00 00 03 00 40 00 00 0c 83 c5 0a 65 "
               "80",
        .pps = "68 e9 38 f2 ce 42 0c 08 0d 1a 41 83 06 10 68 d0 80 c2 12 10 60 40 68 d2 "
               "0c 18 30 83 46 84 06 10 92 20 40 93 c4 18 40 81 27 12 78 83 08 30 81 02 "
               "4e 24 e2 4f 10 61 06 10 61 13 89 38 93 89 10 20 c2 0c 22 71 27 12 20 41 "
               "84 4e 24 40 8c 91 02 04 9e 20 c2 04 09 38 93 c4 18 41 84 08 12 71 27 12 "
               "78 83 08 30 83 08 9c 49 c4 9c 48 81 06 10 61 13 89 38 91 02 0c 22 71 22 "
               "04 4b",
        .sps_bits = 176,
        .pps_bits = 967,
        .width = 160,
        .height = 120,
        .profile_idc = 100,
        .level_idc = 11,
        .log2_max_pic_order_cnt_lsb_minus4 = 2,
        .max_num_ref_frames = 4,
        .max_dec_frame_buffering = 4,
        .entropy_coding_mode_flag = true,
        .num_ref_idx_l0_default_active_minus1 = 3,
        .weighted_pred_flag = true,
        .weighted_bipred_idc = 2,
        .pic_init_qp_minus26 = -3,
        .chroma_qp_index_offset = -2,
        .transform_8x8_mode_flag = true,
        .second_chroma_qp_index_offset = -2,
        .slices =
            {
                {.unit = "65 88 84 00 9f fe c4 33",
                 .header_bits = 30,
                 .slice_type = 7,
                 .slice_qp_delta = 2},
                {.unit = "41 9a 24 6c 49 ff fd fc 28",
                 .header_bits = 34,
                 .slice_type = 5,
                 .frame_num = 1,
                 .pic_order_cnt_lsb = 8,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 2},
                {.unit = "41 9e 42 78 8a ff aa af 38",
                 .header_bits = 35,
                 .slice_type = 6,
                 .frame_num = 2,
                 .pic_order_cnt_lsb = 4,
                 .direct_spatial_mv_pred_flag = true,
                 .num_ref_idx_active_override_flag = true,
                 .slice_qp_delta = 5},
                {.unit = "41 9a 68 4b a8 42 10 5a 21 8f 03 f0 7e 03 f8 07 d8 0f e0 1f b0 3f 02 10 "
                         "08 ef c7 15 05",
                 .header_bits = 199,
                 .slice_type = 5,
                 .frame_num = 3,
                 .pic_order_cnt_lsb = 16,
                 .num_ref_idx_active_override_flag = true,
                 .num_ref_idx_l0_active_minus1 = 4,
                 .modifications_l0 = 5,
                 .luma_log2_weight_denom = 5,
                 .luma_weight = 63,
                 .luma_offset = -15,
                 .slice_qp_delta = 7},
                {.unit = "41 9e 86 6e 51 12 c2 1f b3 eb 07",
                 .header_bits = 54,
                 .slice_type = 6,
                 .frame_num = 4,
                 .pic_order_cnt_lsb = 12,
                 .direct_spatial_mv_pred_flag = true,
                 .num_ref_idx_active_override_flag = true,
                 .num_ref_idx_l0_active_minus1 = 2,
                 .markings = 2,
                 .slice_qp_delta = 8},
                {.unit = "41 9a ab 35 08 2d 93 29 81 0b 7f d3 7b 7f",
                 .header_bits = 76,
                 .slice_type = 5,
                 .frame_num = 5,
                 .pic_order_cnt_lsb = 22,
                 .num_ref_idx_l0_active_minus1 = 3,
                 .modifications_l0 = 4,
                 .slice_qp_delta = 11},
            },
    },
};

using bytes = std::vector<uint8_t>;

bytes bytes_of(std::string_view hex)
{
    const std::string_view digits = "0123456789abcdef";
    bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 3)
        out.push_back(static_cast<uint8_t>(digits.find(hex[i]) * 16 + digits.find(hex[i + 1])));
    return out;
}

struct read_unit {
    h264_nal nal;
    bytes rbsp;
};

// The unit as a stream carries it, through the NAL reader.
read_unit unit_of(std::string_view hex)
{
    bytes stream = bytes_of(hex);
    stream.insert(stream.begin(), {0, 0, 0, 1});
    h2645_common_nal_reader<h264_nal, h2645_common_nalfmt> reader;
    reader.scan(stream.data(), stream.data() + stream.size());
    EXPECT_TRUE(reader.found);
    EXPECT_EQ(reader.next_scan_ptr, stream.data() + stream.size());
    bytes rbsp(stream.size());
    rbsp.resize(reader.block_decode(rbsp.data(), rbsp.size()));
    return {.nal = reader.nal_found, .rbsp = rbsp};
}

void check_sps(const encoder_stream& want, h2645_common_base_store<h264_nal_sps>& store)
{
    const read_unit unit = unit_of(want.sps);
    EXPECT_EQ(unit.nal.nal_unit_type, h264_nal_seq_parameter_set);
    h2645_common_bitreader b(unit.rbsp.data(), unit.rbsp.data() + unit.rbsp.size());
    h264_nal_sps sps;
    sps.parse(b);
    EXPECT_TRUE(sps.valid);
    EXPECT_EQ(unit.rbsp.size() * 8 - b.bits_left(), want.sps_bits);
    EXPECT_FALSE(b.more_rbsp_data());
    EXPECT_EQ(sps.getPicWidth(), want.width);
    EXPECT_EQ(sps.getPicHeight(), want.height);
    EXPECT_EQ(sps.profile_idc, want.profile_idc);
    EXPECT_EQ(sps.level_idc, want.level_idc);
    EXPECT_EQ(sps.chroma_format_idc, want.chroma_format_idc);
    EXPECT_EQ(sps.bit_depth_luma_minus8, want.bit_depth_luma_minus8);
    EXPECT_EQ(sps.pic_order_cnt_type, want.pic_order_cnt_type);
    EXPECT_EQ(sps.log2_max_pic_order_cnt_lsb_minus4, want.log2_max_pic_order_cnt_lsb_minus4);
    EXPECT_EQ(sps.max_num_ref_frames, want.max_num_ref_frames);
    EXPECT_EQ(sps.mb_adaptive_frame_field_flag, want.mb_adaptive_frame_field_flag);
    EXPECT_EQ(sps.vui.aspect_ratio_idc, 1u);
    EXPECT_EQ(sps.vui.num_units_in_tick, 1u);
    EXPECT_EQ(sps.vui.time_scale, 50u); // fields a second
    EXPECT_EQ(sps.vui.max_dec_frame_buffering, want.max_dec_frame_buffering);
    store.sets[sps.seq_parameter_set_id] = sps;
}

void check_pps(const encoder_stream& want, const h2645_common_base_store<h264_nal_sps>& sps_store,
               h2645_common_base_store<h264_nal_pps>& store)
{
    const read_unit unit = unit_of(want.pps);
    EXPECT_EQ(unit.nal.nal_unit_type, h264_nal_pic_parameter_set);
    h2645_common_bitreader b(unit.rbsp.data(), unit.rbsp.data() + unit.rbsp.size());
    h264_nal_pps pps;
    pps.parse(b, sps_store);
    EXPECT_TRUE(pps.valid);
    EXPECT_EQ(unit.rbsp.size() * 8 - b.bits_left(), want.pps_bits);
    EXPECT_FALSE(b.more_rbsp_data());
    EXPECT_EQ(pps.entropy_coding_mode_flag, want.entropy_coding_mode_flag);
    EXPECT_EQ(pps.num_ref_idx_l0_default_active_minus1, want.num_ref_idx_l0_default_active_minus1);
    EXPECT_EQ(pps.weighted_pred_flag, want.weighted_pred_flag);
    EXPECT_EQ(pps.weighted_bipred_idc, want.weighted_bipred_idc);
    EXPECT_EQ(pps.pic_init_qp_minus26, want.pic_init_qp_minus26);
    EXPECT_EQ(pps.chroma_qp_index_offset, want.chroma_qp_index_offset);
    EXPECT_EQ(pps.transform_8x8_mode_flag, want.transform_8x8_mode_flag);
    EXPECT_EQ(pps.second_chroma_qp_index_offset, want.second_chroma_qp_index_offset);
    store.sets[pps.pic_parameter_set_id] = pps;
}

void check_slice(const encoder_slice& want, const h2645_common_base_store<h264_nal_sps>& sps_store,
                 const h2645_common_base_store<h264_nal_pps>& pps_store)
{
    const read_unit unit = unit_of(want.unit);
    h2645_common_bitreader b(unit.rbsp.data(), unit.rbsp.data() + unit.rbsp.size());
    h264_nal_slice_header header;
    header.parse(b, sps_store, pps_store, unit.nal);
    EXPECT_TRUE(header.valid);
    EXPECT_EQ(unit.rbsp.size() * 8 - b.bits_left(), want.header_bits);
    EXPECT_EQ(header.first_mb_in_slice, want.first_mb_in_slice);
    EXPECT_EQ(header.slice_type, want.slice_type);
    EXPECT_EQ(header.frame_num, want.frame_num);
    EXPECT_EQ(header.idr_pic_id, want.idr_pic_id);
    EXPECT_EQ(header.pic_order_cnt_lsb, want.pic_order_cnt_lsb);
    EXPECT_EQ(header.direct_spatial_mv_pred_flag, want.direct_spatial_mv_pred_flag);
    EXPECT_EQ(header.num_ref_idx_active_override_flag, want.num_ref_idx_active_override_flag);
    EXPECT_EQ(header.num_ref_idx_l0_active_minus1, want.num_ref_idx_l0_active_minus1);
    EXPECT_EQ(header.ref_pic_list_modification_l0.commands.size(), want.modifications_l0);
    EXPECT_EQ(header.ref_pic_list_modification_l1.commands.size(), want.modifications_l1);
    EXPECT_EQ(header.pred_weight_table.luma_log2_weight_denom, want.luma_log2_weight_denom);
    if (!header.pred_weight_table.l0.empty()) {
        EXPECT_EQ(header.pred_weight_table.l0[0].luma_weight, want.luma_weight);
        EXPECT_EQ(header.pred_weight_table.l0[0].luma_offset, want.luma_offset);
    }
    EXPECT_EQ(header.dec_ref_pic_marking.commands.size(), want.markings);
    EXPECT_EQ(header.cabac_init_idc, want.cabac_init_idc);
    EXPECT_EQ(header.slice_qp_delta, want.slice_qp_delta);
    EXPECT_EQ(header.disable_deblocking_filter_idc, want.disable_deblocking_filter_idc);
    EXPECT_EQ(header.slice_alpha_c0_offset_div2, want.slice_alpha_c0_offset_div2);
    EXPECT_EQ(header.slice_beta_offset_div2, want.slice_beta_offset_div2);
}

TEST(EncoderBytes, ParameterSetsAndSliceHeadersReadAsReported)
{
    for (const encoder_stream& stream : encoder_streams) {
        SCOPED_TRACE(stream.name);
        h2645_common_base_store<h264_nal_sps> sps_store;
        h2645_common_base_store<h264_nal_pps> pps_store;
        check_sps(stream, sps_store);
        check_pps(stream, sps_store, pps_store);
        for (const encoder_slice& slice : stream.slices) {
            SCOPED_TRACE(slice.unit);
            check_slice(slice, sps_store, pps_store);
        }
    }
}

// The lists the encoder was given: 10, 12, ... 40 for 4x4 blocks and 10, 10, 11, 11, ... 41 for 8x8
// ones, in raster order; a list is sent in zig-zag order.
TEST(EncoderBytes, ScalingListsAreThoseOfTheEncoder)
{
    const encoder_stream& stream = encoder_streams.back();
    const read_unit unit = unit_of(stream.pps);
    h2645_common_bitreader b(unit.rbsp.data(), unit.rbsp.data() + unit.rbsp.size());
    h264_nal_pps pps;
    pps.parse(b, {});
    ASSERT_EQ(pps.scaling_lists.size(), 8u);
    ASSERT_TRUE(pps.scaling_lists[0].present);
    ASSERT_TRUE(pps.scaling_lists[6].present);
    const size_t zig_zag_4x4[] = {0, 1, 4, 8, 5, 2, 3, 6, 9, 12, 13, 10, 7, 11, 14, 15};
    for (size_t i = 0; i < std::size(zig_zag_4x4); i++)
        EXPECT_EQ(pps.scaling_lists[0].scale[i], 10 + 2 * zig_zag_4x4[i]);
    const size_t zig_zag_8x8_start[] = {0, 1, 8, 16, 9, 2, 3, 10, 17, 24};
    for (size_t i = 0; i < std::size(zig_zag_8x8_start); i++)
        EXPECT_EQ(pps.scaling_lists[6].scale[i], 10 + zig_zag_8x8_start[i] / 2);
    EXPECT_EQ(pps.scaling_lists[6].scale[63], 41);
}

} // namespace

} // namespace tremsa
