#include "tools/captions/h264_picture_times.hpp"

#include <algorithm>
#include <vector>

#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/pts_clock.hpp"
#include "tools/captions/picture_order.hpp"
#include "tools/captions/rbsp.hpp"

namespace
{

// No stream has fewer pictures than one in two seconds.
constexpr int64_t longest_frame = 2 * pts_ticks_per_second;

// Nor two pictures of a packet that lie this far apart in the order of display.
constexpr int64_t largest_order_step = int64_t{1} << 32;

int64_t sound_frame_ticks(int64_t ticks)
{
    return ticks > 0 && ticks <= longest_frame ? ticks : 0;
}

// A frame lasts two ticks of the sequence's clock (E.2.1).
int64_t frame_ticks_of(const tremsa::h264_vui& vui)
{
    if (!vui.timing_info_present_flag || vui.time_scale == 0)
        return 0;
    return sound_frame_ticks(2 * pts_ticks_per_second * int64_t{vui.num_units_in_tick} /
                             vui.time_scale);
}

} // namespace

void h264_picture_times::take_parameter_set(std::span<const uint8_t> unit)
{
    tremsa::h264_nal nal;
    nal.parse(unit.data(), unit.data() + unit.size());
    if (!nal.valid)
        return;
    const std::vector<uint8_t> rbsp = rbsp_of(unit);
    tremsa::h2645_common_bitreader bits(rbsp.data(), rbsp.data() + rbsp.size());
    if (nal.nal_unit_type == tremsa::h264_nal_pic_parameter_set) {
        tremsa::h264_nal_pps set;
        set.parse(bits, sequences);
        if (set.valid)
            pictures.sets[set.pic_parameter_set_id] = std::move(set);
        return;
    }
    tremsa::h264_nal_sps set;
    set.parse(bits);
    if (!set.valid)
        return;
    if (const int64_t ticks = frame_ticks_of(set.vui); ticks != 0)
        frame_ticks = ticks;
    may_have_fields = !set.frame_mbs_only_flag;
    sequences.sets[set.seq_parameter_set_id] = std::move(set);
}

// Where the sequence does not tell its frame rate, the packet before does by how long it lasted.
void h264_picture_times::begin_packet(const h264_picture_time& time)
{
    if (frame_ticks == 0 && fields_in_packet > 0)
        frame_ticks = sound_frame_ticks(2 * (time.decoding - first.decoding) / fields_in_packet);
    first = time;
    fields_in_packet = 0;
}

h264_picture_time h264_picture_times::next(std::span<const uint8_t> slice)
{
    const bool is_first = fields_in_packet == 0;
    tremsa::h264_nal nal;
    nal.parse(slice.data(), slice.data() + slice.size());
    const std::vector<uint8_t> rbsp = rbsp_of(slice);
    tremsa::h2645_common_bitreader bits(rbsp.data(), rbsp.data() + rbsp.size());
    tremsa::h264_nal_slice_header header;
    header.parse(bits, sequences, pictures, nal);

    h264_picture_time time = first;
    time.is_field = header.field_pic_flag;
    if (!is_first) {
        time.decoding = last.decoding + last_ticks;
        time.presentation = last.presentation + last_ticks; // unless its order says otherwise
    }
    if (header.valid) {
        const tremsa::h264_nal_sps& sequence =
            sequences.sets.at(pictures.sets.at(header.pic_parameter_set_id).seq_parameter_set_id);
        if (sequence.pic_order_cnt_type == 0) {
            const bool is_idr = nal.nal_unit_type == tremsa::h264_nal_slice_idr;
            if (is_idr && !is_first)
                time.presentation = latest + last_ticks; // all that came before is shown first
            const int64_t order =
                order_of(header, nal, sequence.log2_max_pic_order_cnt_lsb_minus4 + 4);
            if (is_first || is_idr) {
                base_time = time.presentation;
                base_order = order;
            }
            const int64_t step =
                std::clamp(order - base_order, -largest_order_step, largest_order_step);
            time.presentation = base_time + step * frame_ticks / 2;
        }
    }
    time.presentation =
        std::clamp(time.presentation, time.decoding, time.decoding + longest_reordering);
    fields_in_packet += header.field_pic_flag ? 1 : 2;
    last_ticks = header.field_pic_flag ? frame_ticks / 2 : frame_ticks;
    latest = is_first ? time.presentation : std::max(latest, time.presentation);
    last = time;
    return time;
}

// PicOrderCnt without its beginning: the value nearest to the last reference picture's (8.2.1.1).
int64_t h264_picture_times::order_of(const tremsa::h264_nal_slice_header& slice,
                                     const tremsa::h264_nal& nal, uint32_t lsb_bits)
{
    const int64_t modulus = int64_t{1} << lsb_bits;
    int64_t order = slice.pic_order_cnt_lsb;
    if (has_order && nal.nal_unit_type != tremsa::h264_nal_slice_idr) {
        int64_t step = (order - reference_order) & (modulus - 1);
        if (step >= modulus / 2)
            step -= modulus;
        order = reference_order + step;
    }
    if (!has_order || nal.nal_ref_idc != 0)
        reference_order = order;
    has_order = true;
    return order;
}
