#include "toolkit/h264/h2645_common_nal_reader.hpp"

namespace tremsa
{

namespace
{

constexpr uint8_t emulation_prevention_three_byte = 0x03;

} // namespace

// Until a unit is delivered the scan has found nothing.
void h2645_common_nal_reader_base::begin_scan(const uint8_t* p, const uint8_t* end)
{
    *this = h2645_common_nal_reader_base{};
    scan_done = true;
    scan_stop = p >= end;
    next_scan_ptr = scan_stop ? p : end;
}

void h2645_common_nal_reader_base::deliver(const h2645_common_nal_extent& unit, int header_bytes)
{
    found = true;
    found_ptr = unit.start;
    data_ptr = unit.data;
    scan_done = false;
    next_scan_ptr = unit.end;
    payload_ = unit.data + header_bytes;
    payload_end_ = unit.end;
    rewind();
}

void h2645_common_nal_reader_base::rewind()
{
    read_ptr_ = payload_;
    zeros_ = 0;
}

// The loop of 7.3.1 over the bytes past the header: of 0x000003 the first two bytes are payload.
// That holds for a 0x000003 at the unit's very end as well, where it follows cabac_zero_words.
size_t h2645_common_nal_reader_base::block_decode(uint8_t* out, size_t max)
{
    size_t count = 0;
    for (; read_ptr_ != payload_end_; read_ptr_++) {
        const uint8_t byte = *read_ptr_;
        if (zeros_ >= 2 && byte == emulation_prevention_three_byte) {
            zeros_ = 0;
            continue;
        }
        if (count == max)
            break;
        zeros_ = byte == 0 ? zeros_ + 1 : 0;
        out[count++] = byte;
    }
    return count;
}

} // namespace tremsa
