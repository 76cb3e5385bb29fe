#include "toolkit/h264/h264_nal_slice_header.hpp"

#include <algorithm>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/h264_builder.hpp"
#include "tests/unit/toolkit/h264/h264_text.hpp"

namespace tremsa
{

namespace
{

using slice_groups = h264_pps_fields::slice_groups;
using modification = h264_slice_fields::modification;
using marking = h264_slice_fields::marking;
using weights = h264_slice_fields::weights;

// A stream's parameter sets and one of its slices.
struct picture {
    h264_sps_fields sps{};
    h264_pps_fields pps{};
    h264_slice_fields slice{};
};

struct stores {
    h2645_common_base_store<h264_nal_sps> sps;
    h2645_common_base_store<h264_nal_pps> pps;
};

stores stores_of(const picture& p)
{
    stores s;
    s.sps.sets[static_cast<uint32_t>(p.sps.seq_parameter_set_id)] =
        read<h264_nal_sps>(h264_sps_bits(p.sps).bytes());
    EXPECT_TRUE(s.sps.sets.begin()->second.valid);
    s.pps.sets[static_cast<uint32_t>(p.pps.pic_parameter_set_id)] =
        read<h264_nal_pps>(h264_pps_bits(p.pps).rbsp_trailing_bits().bytes(), s.sps);
    EXPECT_TRUE(s.pps.sets.begin()->second.valid);
    return s;
}

h264_nal nal_of(const h264_slice_fields& slice)
{
    h264_nal nal;
    nal.valid = true;
    nal.nal_ref_idc = static_cast<uint32_t>(slice.nal_ref_idc);
    nal.nal_unit_type = static_cast<uint32_t>(slice.nal_unit_type);
    return nal;
}

// Parses the header with slice data behind it and checks that it ends where the builder ended it.
h264_nal_slice_header parse(const picture& p)
{
    const stores s = stores_of(p);
    bit_writer w = h264_slice_bits(p.slice, p.sps, p.pps);
    const size_t header_bits = w.bits();
    w.align(1).u(64, 0x0123456789ABCDEF);
    h2645_common_bitreader b = reader_of(w.bytes());
    h264_nal_slice_header header;
    header.parse(b, s.sps, s.pps, nal_of(p.slice));
    if (header.valid) {
        EXPECT_EQ(w.bits() - b.bits_left(), header_bits);
    }
    return header;
}

h264_slice_fields slice_of_type(uint64_t slice_type)
{
    return {.nal_unit_type = 1, .slice_type = slice_type};
}

TEST(SliceHeader, ReportsTheTypeBelowFive)
{
    for (uint64_t type = 0; type <= 9; type++) {
        SCOPED_TRACE(type);
        const h264_nal_slice_header header = parse({.slice = slice_of_type(type)});
        EXPECT_TRUE(header.valid);
        EXPECT_EQ(header.slice_type, type);
        EXPECT_EQ(header.getSliceType(), type % 5);
    }
    EXPECT_FALSE(parse({.slice = slice_of_type(10)}).valid);
}

TEST(SliceHeader, ReadsAnIdrSlice)
{
    const h264_nal_slice_header header = parse({
        .sps = {.log2_max_frame_num_minus4 = 12, .log2_max_pic_order_cnt_lsb_minus4 = 12},
        .pps = {.pic_parameter_set_id = 255, .redundant_pic_cnt_present_flag = true},
        .slice = {.first_mb_in_slice = 4294967294,
                  .pic_parameter_set_id = 255,
                  .frame_num = 65535,
                  .idr_pic_id = 65536,
                  .pic_order_cnt_lsb = 65534,
                  .redundant_pic_cnt = 127,
                  .no_output_of_prior_pics_flag = true,
                  .long_term_reference_flag = true,
                  .slice_qp_delta = -30,
                  .disable_deblocking_filter_idc = 2,
                  .slice_alpha_c0_offset_div2 = -6,
                  .slice_beta_offset_div2 = 6},
    });
    EXPECT_EQ(text_of(header),
              "first_mb_in_slice=4294967294 slice_type=7 pic_parameter_set_id=255 "
              "frame_num=65535 idr_pic_id=65536 pic_order_cnt_lsb=65534 redundant_pic_cnt=127 "
              "no_output_of_prior_pics_flag=1 long_term_reference_flag=1 slice_qp_delta=-30 "
              "disable_deblocking_filter_idc=2 slice_alpha_c0_offset_div2=-6 "
              "slice_beta_offset_div2=6");
}

TEST(SliceHeader, ReadsABSlice)
{
    const h264_nal_slice_header header = parse({
        .pps = {.num_ref_idx_l0_default_active_minus1 = 3,
                .num_ref_idx_l1_default_active_minus1 = 1,
                .weighted_bipred_idc = 1},
        .slice = {.nal_ref_idc = 1,
                  .nal_unit_type = 1,
                  .first_mb_in_slice = 7,
                  .slice_type = 1,
                  .frame_num = 9,
                  .direct_spatial_mv_pred_flag = true,
                  .num_ref_idx_active_minus1 = {{1, 0}},
                  .modifications_l0 = {{{.modification_of_pic_nums_idc = 0, .value = 4},
                                        {.modification_of_pic_nums_idc = 2, .value = 5}}},
                  .modifications_l1 = {{{.modification_of_pic_nums_idc = 1, .value = 6}}},
                  .luma_log2_weight_denom = 7,
                  .chroma_log2_weight_denom = 6,
                  .weights_l0 = {{.luma = {{-128, 127}}}, {.chroma = {{1, -2, 3, -4}}}},
                  .weights_l1 = {{.luma = {{5, 6}}, .chroma = {{7, 8, 9, 10}}}},
                  .markings = {{{.memory_management_control_operation = 3, .values = {11, 12}},
                                {.memory_management_control_operation = 1, .values = {13}},
                                {.memory_management_control_operation = 2, .values = {14}},
                                {.memory_management_control_operation = 6, .values = {15}},
                                {.memory_management_control_operation = 4, .values = {16}},
                                {.memory_management_control_operation = 5}}},
                  .cabac_init_idc = 2,
                  .slice_qp_delta = 3,
                  .disable_deblocking_filter_idc = 1},
    });
    EXPECT_EQ(text_of(header),
              "first_mb_in_slice=7 slice_type=1 frame_num=9 direct_spatial_mv_pred_flag=1 "
              "num_ref_idx_active_override_flag=1 num_ref_idx_l0_active_minus1=1 "
              "modifications_l0=0:4,2:5 modifications_l1=1:6 luma_log2_weight_denom=7 "
              "chroma_log2_weight_denom=6 weights_l0=-128:127,/1:-2/3:-4 "
              "weights_l1=5:6/7:8/9:10 markings=3:11:12,1:13,2:14,6:15,4:16,5 cabac_init_idc=2 "
              "slice_qp_delta=3 disable_deblocking_filter_idc=1");
}

TEST(SliceHeader, TakesTheDefaultsOfThePictureParameterSet)
{
    const h264_pps_fields pps = {.num_ref_idx_l0_default_active_minus1 = 5,
                                 .num_ref_idx_l1_default_active_minus1 = 4};
    const h264_nal_slice_header p = parse({.pps = pps, .slice = slice_of_type(5)});
    EXPECT_EQ(p.num_ref_idx_l0_active_minus1, 5u);
    EXPECT_EQ(p.num_ref_idx_l1_active_minus1, 0u); // a P slice has no list 1
    const h264_nal_slice_header b = parse({.pps = pps, .slice = slice_of_type(6)});
    EXPECT_EQ(b.num_ref_idx_l0_active_minus1, 5u);
    EXPECT_EQ(b.num_ref_idx_l1_active_minus1, 4u);
}

struct syntax_case {
    std::string_view name;
    picture p;
};

// Each branch of the syntax alone. slice_qp_delta stands behind nearly all of them, and `parse`
// compares the length of the header.
TEST(SliceHeader, FollowsEveryBranchOfTheSyntax)
{
    const h264_sps_fields planes = {
        .profile_idc = 244,
        .high = h264_sps_fields::high_fields{.chroma_format_idc = 3,
                                             .separate_colour_plane_flag = true}};
    const h264_sps_fields fields = {.frame_mbs_only_flag = false};
    const h264_pps_fields cavlc = {.entropy_coding_mode_flag = false,
                                   .deblocking_filter_control_present_flag = false};
    const syntax_case cases[] = {
        {.name = "nothing optional", .p = {.pps = cavlc}},
        {.name = "no reference, so no marking",
         .p = {.slice = {.nal_ref_idc = 0, .nal_unit_type = 1, .slice_type = 2}}},
        {.name = "colour plane", .p = {.sps = planes, .slice = {.colour_plane_id = 2}}},
        {.name = "frame of a field sequence", .p = {.sps = fields}},
        {.name = "top field", .p = {.sps = fields, .slice = {.field_pic_flag = true}}},
        {.name = "bottom field",
         .p = {.sps = fields, .slice = {.field_pic_flag = true, .bottom_field_flag = true}}},
        {.name = "bottom field order count",
         .p = {.pps = {.bottom_field_pic_order_in_frame_present_flag = true},
               .slice = {.delta_pic_order_cnt_bottom = -9}}},
        {.name = "no bottom field order count in a field",
         .p = {.sps = fields,
               .pps = {.bottom_field_pic_order_in_frame_present_flag = true},
               .slice = {.field_pic_flag = true}}},
        {.name = "order count type 1",
         .p = {.sps = {.pic_order_cnt_type = 1}, .slice = {.delta_pic_order_cnt = {-4, 0}}}},
        {.name = "order count type 1, both fields",
         .p = {.sps = {.pic_order_cnt_type = 1},
               .pps = {.bottom_field_pic_order_in_frame_present_flag = true},
               .slice = {.delta_pic_order_cnt = {-4, 5}}}},
        {.name = "order count type 1, always zero",
         .p = {.sps = {.pic_order_cnt_type = 1, .delta_pic_order_always_zero_flag = true}}},
        {.name = "order count type 2", .p = {.sps = {.pic_order_cnt_type = 2}}},
        {.name = "P without weights", .p = {.slice = slice_of_type(0)}},
        {.name = "P in a CAVLC stream", .p = {.pps = cavlc, .slice = slice_of_type(0)}},
        {.name = "P with weights",
         .p = {.pps = {.weighted_pred_flag = true},
               .slice = {.nal_unit_type = 1, .slice_type = 0, .weights_l0 = {{.luma = {{1, 2}}}}}}},
        {.name = "P with weights, luma only",
         .p = {.sps = planes,
               .pps = {.weighted_pred_flag = true},
               .slice = {.nal_unit_type = 1, .slice_type = 0, .weights_l0 = {{.luma = {{1, 2}}}}}}},
        {.name = "P beside bipredictive weights",
         .p = {.pps = {.weighted_bipred_idc = 1}, .slice = slice_of_type(0)}},
        {.name = "B with implicit weights",
         .p = {.pps = {.weighted_pred_flag = true, .weighted_bipred_idc = 2},
               .slice = slice_of_type(1)}},
        {.name = "B with explicit weights",
         .p = {.pps = {.weighted_bipred_idc = 1},
               .slice = {.nal_unit_type = 1,
                         .slice_type = 1,
                         .weights_l0 = {{.luma = {{1, 2}}}},
                         .weights_l1 = {{.chroma = {{1, 2, 3, 4}}}}}}},
        {.name = "modifications without commands",
         .p = {.slice = {.nal_unit_type = 1,
                         .slice_type = 6,
                         .modifications_l0 = std::vector<modification>{},
                         .modifications_l1 = std::vector<modification>{}}}},
        {.name = "marking without commands",
         .p = {.slice = {.nal_unit_type = 1, .slice_type = 7, .markings = std::vector<marking>{}}}},
        {.name = "SP with weights",
         .p = {.pps = {.weighted_pred_flag = true},
               .slice = {.nal_unit_type = 1,
                         .slice_type = 3,
                         .weights_l0 = {{.luma = {{1, 2}}}},
                         .sp_for_switch_flag = true,
                         .slice_qs_delta = -5}}},
        {.name = "SI", .p = {.slice = {.nal_unit_type = 1, .slice_type = 9, .slice_qs_delta = 4}}},
        {.name = "IDR picture of SI slices", .p = {.slice = {.slice_type = 4}}},
    };
    for (const syntax_case& c : cases) {
        SCOPED_TRACE(c.name);
        picture p = c.p;
        p.slice.slice_qp_delta = -17;
        const h264_nal_slice_header header = parse(p);
        EXPECT_TRUE(header.valid);
        EXPECT_EQ(header.colour_plane_id, p.slice.colour_plane_id);
        EXPECT_EQ(header.field_pic_flag, p.slice.field_pic_flag);
        EXPECT_EQ(header.bottom_field_flag, p.slice.bottom_field_flag);
        EXPECT_EQ(header.delta_pic_order_cnt_bottom, p.slice.delta_pic_order_cnt_bottom);
        EXPECT_EQ(header.delta_pic_order_cnt[0], p.slice.delta_pic_order_cnt[0]);
        EXPECT_EQ(header.delta_pic_order_cnt[1], p.slice.delta_pic_order_cnt[1]);
        EXPECT_EQ(header.slice_qp_delta, -17);
        EXPECT_EQ(header.sp_for_switch_flag, p.slice.sp_for_switch_flag);
        EXPECT_EQ(header.slice_qs_delta, p.slice.slice_qs_delta);
    }
}

TEST(SliceHeader, SliceGroupChangeCycleHasTheWidthOfItsRange)
{
    constexpr uint64_t top = 4294967294;
    struct {
        std::string_view name;
        uint64_t width_minus1, height_minus1; // in macroblocks and map units
        uint64_t rate_minus1;
        int bits; // Ceil( Log2( width * height / rate + 1 ) ), computed by hand
    } const cases[] = {
        {"one unit", 0, 0, 0, 1},
        {"99 units", 10, 8, 0, 7},
        {"127 units", 126, 0, 0, 7},
        {"128 units", 127, 0, 0, 8},
        {"7 / 2 is more than 3", 6, 0, 1, 3},
        {"6 / 2 is 3", 5, 0, 1, 2},
        {"rate of the whole picture", 10, 8, 98, 1},
        {"rate above the picture", 10, 8, top, 1},
        {"product of 32 bits", 65535, 65534, 0, 32},
        {"product of 33 bits", 65535, 65535, 0, 33},
        {"the largest product", top, top, 0, 64},
        {"the largest product and rate", top, top, top, 32},
    };
    for (const auto& c : cases) {
        for (const uint64_t map_type : {3u, 4u, 5u}) {
            SCOPED_TRACE(testing::Message() << c.name << ", map type " << map_type);
            const h264_nal_slice_header header = parse({
                .sps = {.pic_width_in_mbs_minus1 = c.width_minus1,
                        .pic_height_in_map_units_minus1 = c.height_minus1},
                .pps = {.groups = slice_groups{.slice_group_map_type = map_type,
                                               .slice_group_change_rate_minus1 = c.rate_minus1}},
                .slice = {.slice_group_change_cycle = 1, .slice_group_change_cycle_bits = c.bits},
            });
            EXPECT_TRUE(header.valid);
            EXPECT_EQ(header.slice_group_change_cycle, 1u);
        }
    }
}

TEST(SliceHeader, OtherSliceGroupsHaveNoChangeCycle)
{
    for (const uint64_t map_type : {1u, 6u}) {
        SCOPED_TRACE(map_type);
        const h264_nal_slice_header header =
            parse({.pps = {.groups = slice_groups{.slice_group_map_type = map_type,
                                                  .slice_group_id = {0}}}});
        EXPECT_TRUE(header.valid);
    }
}

h264_slice_fields with_override(uint64_t l0, uint64_t l1)
{
    return {.nal_unit_type = 1,
            .slice_type = 1,
            .num_ref_idx_active_minus1 = {{l0, l1}},
            .weights_l0 = std::vector<weights>(l0 + 1),
            .weights_l1 = std::vector<weights>(l1 + 1)};
}

h264_slice_fields with_denominators(uint64_t luma, uint64_t chroma)
{
    return {.nal_unit_type = 1,
            .slice_type = 0,
            .luma_log2_weight_denom = luma,
            .chroma_log2_weight_denom = chroma,
            .weights_l0 = {{}}};
}

h264_slice_fields with_modification(uint64_t idc)
{
    return {.nal_unit_type = 1,
            .slice_type = 0,
            .modifications_l0 = {{{.modification_of_pic_nums_idc = idc, .value = 4}}},
            .weights_l0 = {{}}};
}

h264_slice_fields with_marking(uint64_t operation, std::vector<uint64_t> values)
{
    return {.nal_unit_type = 1,
            .markings = {
                {{.memory_management_control_operation = operation, .values = std::move(values)}}}};
}

bool is_valid(const h264_slice_fields& slice)
{
    return parse({.pps = {.weighted_pred_flag = true, .weighted_bipred_idc = 1}, .slice = slice})
        .valid;
}

// Elements that have a last value: it and the one before it are read, the one behind it is refused.
TEST(SliceHeader, KeepsToTheLimitsThatParsingRestsOn)
{
    struct {
        std::string_view name;
        uint64_t last;
        h264_slice_fields (*with)(uint64_t);
    } const limits[] = {
        {"num_ref_idx_l0_active_minus1", 31,
         [](uint64_t v) {
             return with_override(v, 0);
         }},
        {"num_ref_idx_l1_active_minus1", 31,
         [](uint64_t v) {
             return with_override(0, v);
         }},
        {"luma_log2_weight_denom", 7,
         [](uint64_t v) {
             return with_denominators(v, 0);
         }},
        {"chroma_log2_weight_denom", 7,
         [](uint64_t v) {
             return with_denominators(0, v);
         }},
        {"memory_management_control_operation", 6,
         [](uint64_t v) {
             return with_marking(v, v == 6 ? std::vector<uint64_t>{1} : std::vector<uint64_t>{});
         }},
    };
    for (const auto& limit : limits) {
        SCOPED_TRACE(limit.name);
        EXPECT_TRUE(is_valid(limit.with(limit.last - 1)));
        EXPECT_TRUE(is_valid(limit.with(limit.last)));
        EXPECT_FALSE(is_valid(limit.with(limit.last + 1)));
    }
    // 3 ends the list, 4 and 5 belong to slice extensions.
    EXPECT_TRUE(is_valid(with_modification(2)));
    EXPECT_FALSE(is_valid(with_modification(4)));
    EXPECT_FALSE(is_valid({.pic_parameter_set_id = 256}));
}

TEST(SliceHeader, ReadsPastValuesThatNothingRestsOn)
{
    EXPECT_TRUE(is_valid({.idr_pic_id = 4294967294,
                          .slice_qp_delta = -2147483647,
                          .disable_deblocking_filter_idc = 4294967294,
                          .slice_alpha_c0_offset_div2 = 1000,
                          .slice_beta_offset_div2 = -1000}));
}

TEST(SliceHeader, NeedsItsParameterSets)
{
    const picture p = {.pps = {.pic_parameter_set_id = 3, .seq_parameter_set_id = 0},
                       .slice = {.pic_parameter_set_id = 3}};
    stores s = stores_of(p);
    const bit_writer w = h264_slice_bits(p.slice, p.sps, p.pps);
    const auto valid = [&] {
        h2645_common_bitreader b = reader_of(w.bytes());
        h264_nal_slice_header header;
        header.parse(b, s.sps, s.pps, nal_of(p.slice));
        return header.valid;
    };
    EXPECT_TRUE(valid());
    s.pps.sets[3].seq_parameter_set_id = 1; // not stored
    EXPECT_FALSE(valid());
    s.sps.sets[1] = s.sps.sets[0];
    EXPECT_TRUE(valid());
    s.pps.sets[4] = s.pps.sets[3];
    s.pps.sets.erase(3);
    EXPECT_FALSE(valid());
}

// More commands than the standard allows leave the header readable and the record small.
TEST(SliceHeader, DropsCommandsBeyondWhatTheStandardAllows)
{
    for (const size_t count : {31u, 32u, 33u, 1000u}) {
        SCOPED_TRACE(count);
        const h264_nal_slice_header header = parse({
            .slice = {.nal_unit_type = 1,
                      .slice_type = 6,
                      .modifications_l0 = std::vector<modification>(count),
                      .modifications_l1 = std::vector<modification>(count),
                      .slice_qp_delta = 21},
        });
        EXPECT_TRUE(header.valid);
        EXPECT_EQ(header.ref_pic_list_modification_l0.commands.size(), std::min<size_t>(count, 32));
        EXPECT_EQ(header.ref_pic_list_modification_l1.commands.size(), std::min<size_t>(count, 32));
        EXPECT_EQ(header.slice_qp_delta, 21);
    }
    for (const size_t count : {66u, 67u, 68u, 1000u}) {
        SCOPED_TRACE(count);
        const std::vector<marking> markings(
            count, {.memory_management_control_operation = 1, .values = {0}});
        const h264_nal_slice_header header =
            parse({.slice = {.nal_unit_type = 1, .markings = markings, .slice_qp_delta = 21}});
        EXPECT_TRUE(header.valid);
        EXPECT_EQ(header.dec_ref_pic_marking.commands.size(), std::min<size_t>(count, 67));
        EXPECT_EQ(header.slice_qp_delta, 21);
    }
}

// Lists that only the end of the data ends.
TEST(SliceHeader, UnendingCommandsEndWithTheData)
{
    const picture p = {.slice = slice_of_type(0)};
    const stores s = stores_of(p);
    bit_writer modifications;
    modifications.ue(0).ue(0).ue(0).u(4, 0).u(6, 0); // up to pic_order_cnt_lsb
    modifications.u(1, 0).u(1, 1);                   // ref_pic_list_modification_flag_l0
    bit_writer markings;
    markings.ue(0).ue(2).ue(0).u(4, 0).u(6, 0);
    markings.u(1, 1); // adaptive_ref_pic_marking_mode_flag
    for (bit_writer* w : {&modifications, &markings}) {
        // Pairs of codes without an end: 0 0 0 0, and 2 0 2 0 where 0 would end the list.
        while (w->bytes().size() < 8192) {
            if (w == &modifications)
                w->ue(0).ue(0);
            else
                w->ue(2).ue(0);
        }
        h2645_common_bitreader b = reader_of(w->bytes());
        h264_nal_slice_header header;
        header.parse(b, s.sps, s.pps, nal_of(p.slice));
        EXPECT_FALSE(header.valid);
        EXPECT_LE(header.ref_pic_list_modification_l0.commands.size(), 32u);
        EXPECT_LE(header.dec_ref_pic_marking.commands.size(), 67u);
        EXPECT_TRUE(b.error());
    }
}

picture full_b_picture()
{
    return {
        .sps = {.frame_mbs_only_flag = false},
        .pps = {.bottom_field_pic_order_in_frame_present_flag = true,
                .groups = slice_groups{.slice_group_map_type = 4},
                .weighted_bipred_idc = 1,
                .redundant_pic_cnt_present_flag = true},
        .slice = {.nal_unit_type = 1,
                  .first_mb_in_slice = 100,
                  .slice_type = 1,
                  .delta_pic_order_cnt_bottom = 1,
                  .num_ref_idx_active_minus1 = {{1, 1}},
                  .modifications_l0 = {{{.modification_of_pic_nums_idc = 2, .value = 9}}},
                  .modifications_l1 = {{{.modification_of_pic_nums_idc = 1, .value = 9}}},
                  .weights_l0 = {{.luma = {{1, 2}}}, {}},
                  .weights_l1 = {{}, {.chroma = {{1, 2, 3, 4}}}},
                  .markings = {{{.memory_management_control_operation = 1, .values = {0}}}},
                  .slice_group_change_cycle = 1,
                  .slice_group_change_cycle_bits = 13}, // 8160 map units
    };
}

TEST(SliceHeader, IsValidOnceItsLastBitIsThere)
{
    for (const picture& p :
         {picture{}, full_b_picture(), picture{.slice = {.nal_unit_type = 1, .slice_type = 3}}}) {
        const stores s = stores_of(p);
        expect_valid_once_whole(h264_slice_bits(p.slice, p.sps, p.pps),
                                [&](h2645_common_bitreader& b) {
                                    h264_nal_slice_header header;
                                    header.parse(b, s.sps, s.pps, nal_of(p.slice));
                                    return header.valid;
                                });
    }
}

// Random bits never make a record large or a parse endless; the sanitizers watch the rest.
TEST(SliceHeader, NoiseIsHarmless)
{
    const stores s = stores_of(full_b_picture());
    std::mt19937 random(11);
    for (int round = 0; round < 2000; round++) {
        std::vector<uint8_t> noise(random() % 600);
        for (uint8_t& byte : noise) // few leading zeros, so that the codes stay readable
            byte = static_cast<uint8_t>(random() % 256 | random() % 128);
        h264_nal nal;
        nal.nal_ref_idc = random() % 4;
        nal.nal_unit_type = random() % 2 != 0 ? 5 : 1;

        const auto header = read<h264_nal_slice_header>(noise, s.sps, s.pps, nal);
        EXPECT_LE(header.pred_weight_table.l0.size(), 32u);
        EXPECT_LE(header.pred_weight_table.l1.size(), 32u);

        const auto sps = read<h264_nal_sps>(noise);
        static_cast<void>(sps.getPicWidth() + sps.getPicHeight());
        EXPECT_LE(sps.offset_for_ref_frame.size(), 255u);

        const auto pps = read<h264_nal_pps>(noise, s.sps);
        EXPECT_LE(pps.run_length_minus1.size(), 8u);
    }
}

} // namespace

} // namespace tremsa
