#include "tools/ts_prepare/keyframe_test.hpp"

#include <array>

#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h2645_common_nal_reader.hpp"
#include "toolkit/h264/h264_nal.hpp"
#include "toolkit/h264/h264_nal_slice_header.hpp"
#include "toolkit/pes/mpeg_video_scanner.hpp"

namespace
{

using nal_reader = tremsa::h2645_common_nal_reader<tremsa::h264_nal, tremsa::h2645_common_nalfmt>;

constexpr size_t most_nal_bytes = 16384;
constexpr uint8_t i_picture = 1; // picture_coding_type, ISO/IEC 13818-2, table 6-12

bool begins_intra_picture(const h264_sets& sets, const tremsa::h264_nal& nal,
                          tremsa::h2645_common_bitreader& bits)
{
    tremsa::h264_nal_slice_header slice;
    slice.parse(bits, sets.sps, sets.pps, nal);
    return slice.valid && slice.first_mb_in_slice == 0 &&
           (slice.getSliceType() == tremsa::h264_slice_i ||
            slice.getSliceType() == tremsa::h264_slice_si);
}

bool take_nal(h264_sets& sets, nal_reader& reader)
{
    std::array<uint8_t, most_nal_bytes> bytes;
    const size_t count = reader.block_decode(bytes.data(), bytes.size());
    tremsa::h2645_common_bitreader bits(bytes.data(), bytes.data() + count);
    switch (reader.nal_found.nal_unit_type) {
    case tremsa::h264_nal_slice_non_idr:
    case tremsa::h264_nal_slice_idr:
        return begins_intra_picture(sets, reader.nal_found, bits);
    case tremsa::h264_nal_seq_parameter_set: {
        tremsa::h264_nal_sps sps;
        sps.parse(bits);
        if (sps.valid) {
            sets.sps.last_id = sps.seq_parameter_set_id;
            sets.sps.sets[sps.seq_parameter_set_id] = sps;
        }
        return false;
    }
    case tremsa::h264_nal_pic_parameter_set: {
        tremsa::h264_nal_pps pps;
        pps.parse(bits, sets.sps);
        if (pps.valid) {
            sets.pps.last_id = pps.pic_parameter_set_id;
            sets.pps.sets[pps.pic_parameter_set_id] = pps;
        }
        return false;
    }
    default:
        return false;
    }
}

} // namespace

bool is_h264_keyframe(h264_sets& sets, std::span<const uint8_t> payload)
{
    bool result = false;
    nal_reader reader;
    const uint8_t* const end = payload.data() + payload.size();
    for (const uint8_t* p = payload.data(); p < end; p = reader.next_scan_ptr) {
        reader.scan(p, end);
        if (!reader.found)
            break;
        result = take_nal(sets, reader) || result;
    }
    return result;
}

bool is_mpeg_video_keyframe(std::span<const uint8_t> payload)
{
    mpeg_video scanner;
    const uint8_t* const end = payload.data() + payload.size();
    for (const uint8_t* p = payload.data(); p < end;) {
        p = mpeg_video_scan(&scanner, p, end);
        if (scanner.start_code == 0 || scanner.at_end)
            return false;
        if (scanner.start_code == sequence_header_code || scanner.start_code == group_start_code)
            return true;
        mpeg_video_picture_header picture;
        if (scanner.start_code == picture_start_code &&
            mpeg_video_decode_picture_header(scanner.code_ptr, end, &picture) != 0)
            return picture.picture_coding_type == i_picture && picture.temporal_reference == 0;
    }
    return false;
}
