#include <cstddef>

#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h2645_common_nal_reader.hpp"
#include "toolkit/h264/h264_nal.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_slice_header.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"
#include "v2/base/assertion.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/es/keyframe.hpp"

namespace
{

using nal_reader = tremsa::h2645_common_nal_reader<tremsa::h264_nal, tremsa::h2645_common_nalfmt>;
using tremsa::h2645_common_bitreader;

// One NAL unit at a time, without its emulation prevention bytes. Process-wide, so that nothing is
// allocated per unit.
uint8_t nal_tmp[16384];
size_t nal_tmp_sz = 0;

bool is_slice(const tremsa::h264_nal& nal)
{
    return nal.nal_unit_type == tremsa::h264_nal_slice_non_idr ||
           nal.nal_unit_type == tremsa::h264_nal_slice_idr;
}

// Whether units of this type are looked into; all others are passed over.
bool is_read(const tremsa::h264_nal& nal)
{
    return is_slice(nal) || nal.nal_unit_type == tremsa::h264_nal_pic_parameter_set ||
           nal.nal_unit_type == tremsa::h264_nal_seq_parameter_set;
}

bool begins_intra_picture(h2645_common_bitreader& bits, const tremsa::h264_nal& nal,
                          const PIDmap& pm)
{
    tremsa::h264_nal_slice_header slice;
    slice.parse(bits, pm.sps_store, pm.pps_store, nal);
    return slice.valid && slice.first_mb_in_slice == 0 &&
           (slice.getSliceType() == tremsa::h264_slice_i ||
            slice.getSliceType() == tremsa::h264_slice_si);
}

void store_pps(h2645_common_bitreader& bits, PIDmap& pm)
{
    tremsa::h264_nal_pps pps;
    pps.parse(bits, pm.sps_store);
    if (!pps.valid)
        return;
    pm.pps_store.sets[pps.pic_parameter_set_id] = pps;
    pm.pps_store.last_id = pps.pic_parameter_set_id;
}

void store_sps(h2645_common_bitreader& bits, PIDmap& pm)
{
    tremsa::h264_nal_sps sps;
    sps.parse(bits);
    if (!sps.valid)
        return;
    pm.sps_store.sets[sps.seq_parameter_set_id] = sps;
    pm.sps_store.last_id = sps.seq_parameter_set_id;
    pm.video_height = sps.getPicHeight();
    pm.video_width = sps.getPicWidth();
}

} // namespace

// Every unit of the range is visited, so parameter sets after the first slice are kept too, and a
// slice is parsed against the sets that stand before it.
bool is_video_keyframe_h264(const unsigned char* pes_payload, const unsigned char* end, PIDmap& pm)
{
    bool result = false;
    nal_reader nalr;
    while (pes_payload < end) {
        nalr.scan(pes_payload, end);
        if (nalr.scan_done)
            break;
        ASSERT_INVARIANT(nalr.next_scan_ptr != NULL, __PRETTY_FUNCTION__);
        if (nalr.scan_stop)
            break;
        ASSERT_INVARIANT(pes_payload < nalr.next_scan_ptr, __PRETTY_FUNCTION__);

        if (nalr.found) {
            ASSERT_INVARIANT(nalr.found_ptr != NULL, __PRETTY_FUNCTION__);
            ASSERT_INVARIANT(nalr.data_ptr != NULL, __PRETTY_FUNCTION__);
            ASSERT_INVARIANT(nalr.nal_found.valid, __PRETTY_FUNCTION__);
        }
        if (nalr.found && is_read(nalr.nal_found)) {
            nalr.rewind();
            nal_tmp_sz = nalr.block_decode(nal_tmp, sizeof(nal_tmp));
            ASSERT_INVARIANT(nal_tmp_sz <= sizeof(nal_tmp), __PRETTY_FUNCTION__);
            h2645_common_bitreader bits(nal_tmp, nal_tmp + nal_tmp_sz);
            if (is_slice(nalr.nal_found))
                result = begins_intra_picture(bits, nalr.nal_found, pm) || result;
            else if (nalr.nal_found.nal_unit_type == tremsa::h264_nal_pic_parameter_set)
                store_pps(bits, pm);
            else
                store_sps(bits, pm);
        }
        pes_payload = nalr.next_scan_ptr;
    }
    return result;
}
