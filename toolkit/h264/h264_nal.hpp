// The header of one NAL unit, ITU-T H.264, 7.3.1.
#pragma once

#include <cstdint>

namespace tremsa
{

// nal_unit_type, Table 7-1: those this reader and its callers name.
constexpr uint32_t h264_nal_slice_non_idr = 1;
constexpr uint32_t h264_nal_slice_idr = 5;
constexpr uint32_t h264_nal_sei = 6;
constexpr uint32_t h264_nal_seq_parameter_set = 7;
constexpr uint32_t h264_nal_pic_parameter_set = 8;
constexpr uint32_t h264_nal_access_unit_delimiter = 9;

struct h264_nal {
    static constexpr int header_bytes = 1;

    bool valid = false; // the header was read and its forbidden_zero_bit is 0
    uint32_t nal_ref_idc = 0;
    uint32_t nal_unit_type = 0; // 0 to 31

    // Reads the header of the unit [p, end); an empty unit has none and is not valid. The
    // extensions that units of type 14, 20 and 21 carry after this byte are not read: no such
    // unit is parsed further.
    void parse(const uint8_t* p, const uint8_t* end);
};

} // namespace tremsa
