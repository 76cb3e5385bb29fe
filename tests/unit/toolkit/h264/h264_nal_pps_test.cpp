#include "toolkit/h264/h264_nal_pps.hpp"

#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/h264_builder.hpp"
#include "tests/unit/toolkit/h264/h264_text.hpp"

namespace tremsa
{

namespace
{

using sps_store = h2645_common_base_store<h264_nal_sps>;
using slice_groups = h264_pps_fields::slice_groups;
using extension = h264_pps_fields::extension;

h264_nal_pps parse(const h264_pps_fields& fields, const sps_store& store = {})
{
    return read<h264_nal_pps>(h264_pps_bits(fields).rbsp_trailing_bits().bytes(), store);
}

sps_store store_with_chroma(uint32_t seq_parameter_set_id, uint32_t chroma_format_idc)
{
    sps_store store;
    store.sets[seq_parameter_set_id].chroma_format_idc = chroma_format_idc;
    store.sets[seq_parameter_set_id].valid = true;
    return store;
}

TEST(Pps, ReadsEveryField)
{
    const h264_pps_fields fields = {
        .pic_parameter_set_id = 255,
        .seq_parameter_set_id = 31,
        .entropy_coding_mode_flag = true,
        .bottom_field_pic_order_in_frame_present_flag = true,
        .num_ref_idx_l0_default_active_minus1 = 31,
        .num_ref_idx_l1_default_active_minus1 = 15,
        .weighted_pred_flag = true,
        .weighted_bipred_idc = 2,
        .pic_init_qp_minus26 = -26,
        .pic_init_qs_minus26 = 25,
        .chroma_qp_index_offset = -12,
        .deblocking_filter_control_present_flag = false,
        .constrained_intra_pred_flag = true,
        .redundant_pic_cnt_present_flag = true,
        .more = extension{.transform_8x8_mode_flag = true,
                          .scaling_lists =
                              std::vector<h264_delta_scales>{{}, {}, {}, {}, {}, {}, {}, {-8}},
                          .second_chroma_qp_index_offset = 12},
    };
    EXPECT_EQ(text_of(parse(fields)),
              "pic_parameter_set_id=255 seq_parameter_set_id=31 entropy_coding_mode_flag=1 "
              "bottom_field_pic_order_in_frame_present_flag=1 "
              "num_ref_idx_l0_default_active_minus1=31 num_ref_idx_l1_default_active_minus1=15 "
              "weighted_pred_flag=1 weighted_bipred_idc=2 pic_init_qp_minus26=-26 "
              "pic_init_qs_minus26=25 chroma_qp_index_offset=-12 constrained_intra_pred_flag=1 "
              "redundant_pic_cnt_present_flag=1 transform_8x8_mode_flag=1 "
              "pic_scaling_matrix_present_flag=1 scaling_lists=-|-|-|-|-|-|-|default "
              "second_chroma_qp_index_offset=12");
}

TEST(Pps, InfersWhatIsNotSentWhateverTheRecordHeldBefore)
{
    h264_nal_pps pps = parse({
        .groups = slice_groups{.slice_group_map_type = 0, .run_length_minus1 = {1, 2}},
        .more = extension{.second_chroma_qp_index_offset = 5},
    });
    EXPECT_TRUE(pps.valid);
    const bit_writer w = h264_pps_bits({.chroma_qp_index_offset = -3}).rbsp_trailing_bits();
    h2645_common_bitreader b = reader_of(w.bytes());
    pps.parse(b, {});
    EXPECT_EQ(text_of(pps),
              "entropy_coding_mode_flag=1 chroma_qp_index_offset=-3 "
              "deblocking_filter_control_present_flag=1 second_chroma_qp_index_offset=-3");
}

struct group_case {
    std::string_view name;
    slice_groups groups;
};

// Behind the slice groups stands a default of 17: it is found where they took the right bits.
TEST(Pps, ReadsSliceGroupsOfEveryMapType)
{
    const group_case cases[] = {
        {.name = "interleaved",
         .groups = {.num_slice_groups_minus1 = 7,
                    .slice_group_map_type = 0,
                    .run_length_minus1 = {0, 1, 2, 3, 4, 5, 6, 4294967294}}},
        {.name = "dispersed", .groups = {.slice_group_map_type = 1}},
        {.name = "foreground and left-over",
         .groups = {.num_slice_groups_minus1 = 2,
                    .slice_group_map_type = 2,
                    .rectangles = {{.top_left = 1, .bottom_right = 20},
                                   {.top_left = 5, .bottom_right = 4294967294}}}},
        {.name = "box-out",
         .groups = {.slice_group_map_type = 3,
                    .slice_group_change_direction_flag = true,
                    .slice_group_change_rate_minus1 = 98}},
        {.name = "raster scan",
         .groups = {.slice_group_map_type = 4, .slice_group_change_rate_minus1 = 4294967294}},
        {.name = "wipe",
         .groups = {.slice_group_map_type = 5, .slice_group_change_direction_flag = true}},
        {.name = "explicit, two groups",
         .groups = {.slice_group_map_type = 6,
                    .pic_size_in_map_units_minus1 = 4,
                    .slice_group_id_bits = 1,
                    .slice_group_id = {0, 1, 1, 0, 1}}},
        {.name = "explicit, three groups",
         .groups = {.num_slice_groups_minus1 = 2,
                    .slice_group_map_type = 6,
                    .pic_size_in_map_units_minus1 = 2,
                    .slice_group_id_bits = 2,
                    .slice_group_id = {0, 1, 2}}},
        {.name = "explicit, four groups",
         .groups = {.num_slice_groups_minus1 = 3,
                    .slice_group_map_type = 6,
                    .pic_size_in_map_units_minus1 = 2,
                    .slice_group_id_bits = 2,
                    .slice_group_id = {3, 1, 2}}},
        {.name = "explicit, five groups",
         .groups = {.num_slice_groups_minus1 = 4,
                    .slice_group_map_type = 6,
                    .pic_size_in_map_units_minus1 = 0,
                    .slice_group_id_bits = 3,
                    .slice_group_id = {4}}},
        {.name = "explicit, eight groups over 8160 units",
         .groups = {.num_slice_groups_minus1 = 7,
                    .slice_group_map_type = 6,
                    .pic_size_in_map_units_minus1 = 8159,
                    .slice_group_id_bits = 3,
                    .slice_group_id = std::vector<uint64_t>(8160, 7)}},
    };
    for (const group_case& c : cases) {
        SCOPED_TRACE(c.name);
        const h264_nal_pps pps =
            parse({.groups = c.groups, .num_ref_idx_l0_default_active_minus1 = 17});
        EXPECT_TRUE(pps.valid);
        EXPECT_EQ(pps.num_slice_groups_minus1, c.groups.num_slice_groups_minus1);
        EXPECT_EQ(pps.slice_group_map_type, c.groups.slice_group_map_type);
        EXPECT_EQ(std::vector<uint64_t>(pps.run_length_minus1.begin(), pps.run_length_minus1.end()),
                  c.groups.run_length_minus1);
        ASSERT_EQ(pps.rectangles.size(), c.groups.rectangles.size());
        for (size_t i = 0; i < pps.rectangles.size(); i++) {
            EXPECT_EQ(pps.rectangles[i].top_left, c.groups.rectangles[i].top_left);
            EXPECT_EQ(pps.rectangles[i].bottom_right, c.groups.rectangles[i].bottom_right);
        }
        EXPECT_EQ(pps.slice_group_change_direction_flag,
                  c.groups.slice_group_change_direction_flag);
        EXPECT_EQ(pps.slice_group_change_rate_minus1, c.groups.slice_group_change_rate_minus1);
        EXPECT_EQ(pps.pic_size_in_map_units_minus1, c.groups.pic_size_in_map_units_minus1);
        EXPECT_EQ(pps.num_ref_idx_l0_default_active_minus1, 17u);
    }
}

TEST(Pps, RefusesMoreSliceGroupIdsThanThereAreBits)
{
    const h264_nal_pps pps = parse({
        .groups = slice_groups{.num_slice_groups_minus1 = 7,
                               .slice_group_map_type = 6,
                               .pic_size_in_map_units_minus1 = 4294967294},
    });
    EXPECT_FALSE(pps.valid);
}

struct list_case {
    std::string_view name;
    sps_store store;
    bool transform_8x8_mode_flag;
    size_t want; // scaling lists
};

TEST(Pps, CountsScalingListsByTransformAndChromaFormat)
{
    const list_case cases[] = {
        {.name = "4x4 only", .store = {}, .transform_8x8_mode_flag = false, .want = 6},
        {.name = "sequence unknown", .store = {}, .transform_8x8_mode_flag = true, .want = 8},
        {.name = "another sequence known",
         .store = store_with_chroma(4, 3),
         .transform_8x8_mode_flag = true,
         .want = 8},
        {.name = "4:0:0",
         .store = store_with_chroma(5, 0),
         .transform_8x8_mode_flag = true,
         .want = 8},
        {.name = "4:2:2",
         .store = store_with_chroma(5, 2),
         .transform_8x8_mode_flag = true,
         .want = 8},
        {.name = "4:4:4",
         .store = store_with_chroma(5, 3),
         .transform_8x8_mode_flag = true,
         .want = 12},
        {.name = "4:4:4, 4x4 only",
         .store = store_with_chroma(5, 3),
         .transform_8x8_mode_flag = false,
         .want = 6},
    };
    for (const list_case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<h264_delta_scales> lists(c.want);
        lists.back() = {-8};
        const h264_nal_pps pps =
            parse({.seq_parameter_set_id = 5,
                   .more = extension{.transform_8x8_mode_flag = c.transform_8x8_mode_flag,
                                     .scaling_lists = lists,
                                     .second_chroma_qp_index_offset = -11}},
                  c.store);
        EXPECT_TRUE(pps.valid);
        ASSERT_EQ(pps.scaling_lists.size(), c.want);
        EXPECT_TRUE(pps.scaling_lists.back().use_default);
        EXPECT_EQ(pps.second_chroma_qp_index_offset, -11);
    }
}

h264_pps_fields with_groups(uint64_t num_slice_groups_minus1, uint64_t map_type)
{
    return {.groups = slice_groups{.num_slice_groups_minus1 = num_slice_groups_minus1,
                                   .slice_group_map_type = map_type,
                                   .slice_group_id = {0}}};
}

// Elements that have a last value: it and the one before it are read, the one behind it is refused.
TEST(Pps, KeepsToTheLimitsThatParsingRestsOn)
{
    using fields = h264_pps_fields;
    struct {
        std::string_view name;
        uint64_t last;
        fields (*with)(uint64_t);
    } const limits[] = {
        {"pic_parameter_set_id", 255,
         [](uint64_t v) {
             return fields{.pic_parameter_set_id = v};
         }},
        {"seq_parameter_set_id", 31,
         [](uint64_t v) {
             return fields{.seq_parameter_set_id = v};
         }},
        {"num_slice_groups_minus1", 7,
         [](uint64_t v) {
             return with_groups(v, 1);
         }},
        {"slice_group_map_type", 6,
         [](uint64_t v) {
             return with_groups(1, v);
         }},
        {"num_ref_idx_l0_default_active_minus1", 31,
         [](uint64_t v) {
             return fields{.num_ref_idx_l0_default_active_minus1 = v};
         }},
        {"num_ref_idx_l1_default_active_minus1", 31,
         [](uint64_t v) {
             return fields{.num_ref_idx_l1_default_active_minus1 = v};
         }},
    };
    for (const auto& limit : limits) {
        SCOPED_TRACE(limit.name);
        EXPECT_TRUE(parse(limit.with(limit.last - 1)).valid);
        EXPECT_TRUE(parse(limit.with(limit.last)).valid);
        EXPECT_FALSE(parse(limit.with(limit.last + 1)).valid);
    }
}

TEST(Pps, ReadsPastValuesThatNothingRestsOn)
{
    EXPECT_TRUE(parse({.weighted_bipred_idc = 3,
                       .pic_init_qp_minus26 = -1000,
                       .pic_init_qs_minus26 = 2147483647,
                       .chroma_qp_index_offset = 99,
                       .more = extension{.second_chroma_qp_index_offset = -99}})
                    .valid);
}

// A set cut off in its optional part cannot be told from a shorter one, as the last bit set ends
// either. One cut off before that part is never valid.
TEST(Pps, IsNotValidWithoutItsFirstPart)
{
    const std::vector<h264_pps_fields> sets = {
        {},
        {.groups = slice_groups{.num_slice_groups_minus1 = 7,
                                .slice_group_map_type = 6,
                                .pic_size_in_map_units_minus1 = 99,
                                .slice_group_id_bits = 3,
                                .slice_group_id = std::vector<uint64_t>(100, 5)},
         .pic_init_qp_minus26 = -20},
    };
    for (const h264_pps_fields& fields : sets)
        expect_valid_once_whole(h264_pps_bits(fields), [](h2645_common_bitreader& b) {
            h264_nal_pps pps;
            pps.parse(b, {});
            return pps.valid;
        });
}

TEST(Pps, IsNotValidInsideAScalingList)
{
    h264_pps_fields fields = {.more =
                                  extension{.scaling_lists = std::vector<h264_delta_scales>{
                                                h264_delta_scales(16, 100), {}, {}, {}, {}, {}}}};
    std::vector<uint8_t> rbsp = h264_pps_bits(fields).rbsp_trailing_bits().bytes();
    EXPECT_TRUE(read<h264_nal_pps>(rbsp, sps_store{}).valid);
    rbsp.pop_back();
    rbsp.pop_back();
    EXPECT_FALSE(read<h264_nal_pps>(rbsp, sps_store{}).valid);
}

TEST(Pps, TrailingZeroBytesAreNoMoreData)
{
    std::vector<uint8_t> rbsp = h264_pps_bits({}).rbsp_trailing_bits().bytes();
    rbsp.insert(rbsp.end(), 5, 0);
    const h264_nal_pps pps = read<h264_nal_pps>(rbsp, sps_store{});
    EXPECT_TRUE(pps.valid);
    EXPECT_FALSE(pps.transform_8x8_mode_flag);
}

} // namespace

} // namespace tremsa
