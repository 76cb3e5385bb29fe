#include "toolkit/h264/h2645_common_nal_reader.hpp"

#include <algorithm>
#include <cstring>

#include "toolkit/start_code.hpp"

namespace tremsa
{

namespace
{

constexpr uint8_t emulation_prevention_three_byte = 0x03;

// The next 0x03 in [p, end) that follows two zero bytes of the payload, or `end`.
const uint8_t* find_emulation_prevention(const uint8_t* payload, const uint8_t* p,
                                         const uint8_t* end)
{
    const uint8_t* pair = find_zero_pair(p - std::min<std::ptrdiff_t>(p - payload, 2), end);
    for (; end - pair >= 3; pair = find_zero_pair(pair + 1, end))
        if (pair[2] == emulation_prevention_three_byte)
            return pair + 2;
    return end;
}

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
}

// The loop of 7.3.1 over the bytes past the header: of 0x000003 the first two bytes are payload.
// That holds for a 0x000003 at the unit's very end as well, where it follows cabac_zero_words.
size_t h2645_common_nal_reader_base::block_decode(uint8_t* out, size_t max)
{
    size_t count = 0;
    while (count < max && read_ptr_ != payload_end_) {
        const uint8_t* prevention = find_emulation_prevention(payload_, read_ptr_, payload_end_);
        const size_t run = std::min(max - count, static_cast<size_t>(prevention - read_ptr_));
        std::memcpy(out + count, read_ptr_, run);
        count += run;
        read_ptr_ += run;
        if (read_ptr_ == prevention && prevention != payload_end_)
            read_ptr_++;
    }
    return count;
}

} // namespace tremsa
