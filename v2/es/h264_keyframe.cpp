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

h2645_common_bitreader read_unit(nal_reader& nalr)
{
    nalr.rewind();
    nal_tmp_sz = nalr.block_decode(nal_tmp, sizeof(nal_tmp));
    ASSERT_INVARIANT(nal_tmp_sz <= sizeof(nal_tmp), __PRETTY_FUNCTION__);
    return {nal_tmp, nal_tmp + nal_tmp_sz};
}

bool begins_intra_picture(nal_reader& nalr, const PIDmap& pm)
{
    h2645_common_bitreader bits = read_unit(nalr);
    tremsa::h264_nal_slice_header slice;
    slice.parse(bits, pm.sps_store, pm.pps_store, nalr.nal_found);
    return slice.valid && slice.first_mb_in_slice == 0 &&
           (slice.getSliceType() == tremsa::h264_slice_i ||
            slice.getSliceType() == tremsa::h264_slice_si);
}

void store_pps(nal_reader& nalr, PIDmap& pm)
{
    h2645_common_bitreader bits = read_unit(nalr);
    tremsa::h264_nal_pps pps;
    pps.parse(bits, pm.sps_store);
    if (!pps.valid)
        return;
    pm.pps_store.sets[pps.pic_parameter_set_id] = pps;
    pm.pps_store.last_id = pps.pic_parameter_set_id;
}

void store_sps(nal_reader& nalr, PIDmap& pm)
{
    h2645_common_bitreader bits = read_unit(nalr);
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
            switch (nalr.nal_found.nal_unit_type) {
            case tremsa::h264_nal_slice_non_idr:
            case tremsa::h264_nal_slice_idr:
                result = begins_intra_picture(nalr, pm) || result;
                break;
            case tremsa::h264_nal_pic_parameter_set:
                store_pps(nalr, pm);
                break;
            case tremsa::h264_nal_seq_parameter_set:
                store_sps(nalr, pm);
                break;
            default:
                break;
            }
        }
        pes_payload = nalr.next_scan_ptr;
    }
    return result;
}
