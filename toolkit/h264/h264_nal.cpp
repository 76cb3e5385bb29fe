#include "toolkit/h264/h264_nal.hpp"

namespace tremsa
{

// nal_unit() header, 7.3.1
//   byte 0     forbidden_zero_bit:1 nal_ref_idc:2 nal_unit_type:5
void h264_nal::parse(const uint8_t* p, const uint8_t* end)
{
    *this = h264_nal{};
    if (end - p < header_bytes)
        return;

    const uint32_t forbidden_zero_bit = p[0] >> 7;
    nal_ref_idc = (p[0] >> 5) & 0x3;
    nal_unit_type = p[0] & 0x1F;
    valid = forbidden_zero_bit == 0;
}

} // namespace tremsa
