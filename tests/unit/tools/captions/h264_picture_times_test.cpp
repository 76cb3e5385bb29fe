// Times of the pictures of a PES packet, by the order counts in their slices.

#include "tools/captions/h264_picture_times.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.hpp"
#include "tests/support/h264_builder.hpp"
#include "tools/captions/picture_order.hpp"

namespace
{

constexpr int64_t frame = 3600;

h264_sps_fields sequence_of(uint64_t order_type, bool is_timed)
{
    h264_sps_fields sequence;
    sequence.pic_order_cnt_type = order_type;
    sequence.frame_mbs_only_flag = false;
    sequence.vui.emplace();
    if (is_timed)
        sequence.vui->timing = {.num_units_in_tick = 1, .time_scale = 50};
    return sequence;
}

// Without its start code.
byte_string unit(byte_string bytes)
{
    bytes.erase(bytes.begin(), bytes.begin() + 4);
    return bytes;
}

struct picture {
    uint64_t order = 0; // pic_order_cnt_lsb, of 64
    uint64_t nal_ref_idc = 1;
    uint64_t type = 1; // 5: IDR
    bool is_field = false;
};

struct times_case {
    std::string name;
    std::vector<picture> pictures;
    std::vector<int64_t> want; // presentation, in fields from the packet's time stamp on
    uint64_t order_type = 0;
    bool is_timed = true;
};

const times_case times_cases[] = {
    {"the order of decoding", {{0, 1, 5}, {2}, {4}}, {0, 2, 4}},
    {"B pictures",
     {{0, 1, 5}, {6}, {2, 0}, {4, 0}, {12}, {8, 0}, {10, 0}},
     {0, 6, 2, 4, 12, 8, 10}},
    {"the count wraps", {{60}, {2}, {62, 0}, {0, 0}, {8}}, {0, 6, 2, 4, 12}},
    {"begins in the middle", {{10, 0}, {12, 0}, {20}, {14, 0}}, {0, 2, 10, 4}},
    {"a new sequence", {{0, 1, 5}, {4}, {2, 0}, {0, 1, 5}, {2}}, {0, 4, 2, 6, 8}},
    {"fields",
     {{0, 1, 5, true}, {1, 1, 1, true}, {6, 1, 1, true}, {7, 1, 1, true}, {2, 0, 1, true}},
     {0, 1, 6, 7, 2}},
    {"not before they are decoded", {{0, 1, 5}, {2}, {0, 0}}, {0, 2, 4 - 2}},
    {"no order count", {{0, 1, 5}, {0}, {0}}, {0, 2, 4}, 2},
    {"no frame rate", {{0, 1, 5}, {6}, {2}}, {0, 0, 0}, 0, false},
};

TEST(H264PictureTimes, FollowFromTheOrderCount)
{
    for (const times_case& c : times_cases) {
        SCOPED_TRACE(c.name);
        const h264_sps_fields sequence = sequence_of(c.order_type, c.is_timed);
        h264_picture_times times;
        times.take_parameter_set(unit(h264_sps_unit(sequence)));
        times.take_parameter_set(unit(h264_pps_unit()));
        // Two fields of delay between decoding and presentation.
        const h264_picture_time first{.presentation = 900000 + frame, .decoding = 900000};
        times.begin_packet(first);
        std::vector<int64_t> got;
        for (const picture& p : c.pictures) {
            const byte_string slice = h264_slice_unit({.nal_ref_idc = p.nal_ref_idc,
                                                       .nal_unit_type = p.type,
                                                       .field_pic_flag = p.is_field,
                                                       .pic_order_cnt_lsb = p.order},
                                                      sequence);
            const h264_picture_time time = times.next(unit(slice));
            got.push_back((time.presentation - first.presentation) / (frame / 2));
        }
        EXPECT_EQ(got, c.want);
    }
}

TEST(H264PictureTimes, PacketBeforeTellsTheFrameRate)
{
    const h264_sps_fields sequence = sequence_of(0, false);
    h264_picture_times times;
    times.take_parameter_set(unit(h264_sps_unit(sequence)));
    times.take_parameter_set(unit(h264_pps_unit()));
    const auto next = [&](uint64_t order) {
        const byte_string slice = h264_slice_unit(
            {.nal_ref_idc = 1, .nal_unit_type = 1, .pic_order_cnt_lsb = order}, sequence);
        return times.next(unit(slice)).presentation;
    };
    times.begin_packet({.presentation = 0, .decoding = 0});
    for (const uint64_t order : {0U, 2U, 4U})
        EXPECT_EQ(next(order), 0);
    times.begin_packet({.presentation = 3 * frame, .decoding = 3 * frame});
    EXPECT_EQ(next(6), 3 * frame);
    EXPECT_EQ(next(8), 4 * frame);
}

TEST(H264PictureTimes, BytesThatAreNoSliceComeAFrameLater)
{
    h264_picture_times times;
    times.take_parameter_set(unit(h264_sps_unit(sequence_of(0, true))));
    times.begin_packet({.presentation = 0, .decoding = 0});
    const uint8_t noise[] = {0x61, 0x80};
    EXPECT_EQ(times.next(noise).presentation, 0);
    EXPECT_EQ(times.next(noise).presentation, frame);
    EXPECT_EQ(times.next(noise).presentation, 2 * frame);
}

// A packet that never ends has ever more pictures, each of which may count far ahead.
TEST(H264PictureTimes, OrderThatLeavesAllBoundsEndsInALateTime)
{
    const h264_sps_fields sequence = sequence_of(0, true);
    h264_picture_times times;
    times.take_parameter_set(unit(h264_sps_unit(sequence)));
    times.take_parameter_set(unit(h264_pps_unit()));
    times.begin_packet({.presentation = 0, .decoding = 0});
    const byte_string slice = unit(h264_slice_unit({.nal_unit_type = 1}, sequence));
    EXPECT_EQ(times.next(slice).presentation, 0);
    times.reference_order = int64_t{1} << 52;
    const h264_picture_time late = times.next(slice);
    EXPECT_EQ(late.presentation, late.decoding + longest_reordering);
}

} // namespace
