// Walks the NAL units of a byte range and delivers their payload, ITU-T H.264, 7.3.1 and Annex B.
//
// The reader never owns the bytes: its pointers lead into the range of the last scan and are valid
// as long as that range is.
#pragma once

#include <cstddef>
#include <cstdint>

#include "toolkit/h264/h2645_common_nalfmt.hpp"

namespace tremsa
{

// What the last scan found, and the reading of that unit.
class h2645_common_nal_reader_base
{
public:
    const uint8_t* next_scan_ptr = nullptr; // where to go on; past the beginning of the last scan
                                            // whenever that lay before the range's end
    bool found = false;                     // a NAL unit with a valid header was found
    const uint8_t* found_ptr = nullptr;     // the unit's start code; null unless `found`
    const uint8_t* data_ptr = nullptr;      // the unit's header byte; null unless `found`
    bool scan_done = false;                 // the range holds no further unit: never with `found`
    bool scan_stop = false;                 // the range was empty, or ended before it began

    // Back to the beginning of the unit last found, where a scan leaves the reader too.
    void rewind();

    // Copies at most `max` bytes of the unit last found to `out` and returns their number. What is
    // delivered is the RBSP: the unit without its header, which the scan has decoded already, and
    // without its emulation prevention bytes. A further call delivers what follows; 0 means that
    // the unit is exhausted, or none was found.
    size_t block_decode(uint8_t* out, size_t max);

protected:
    void begin_scan(const uint8_t* p, const uint8_t* end);
    void deliver(const h2645_common_nal_extent& unit, int header_bytes);

private:
    const uint8_t* payload_ = nullptr;
    const uint8_t* payload_end_ = nullptr;
    const uint8_t* read_ptr_ = nullptr;
};

// `nal` decodes the header of a unit (h264_nal), `fmt` delimits units (h2645_common_nalfmt).
template <class nal, class fmt>
class h2645_common_nal_reader : public h2645_common_nal_reader_base
{
public:
    nal nal_found; // valid when `found`

    // Finds the first unit of [p, end). A unit without a valid header (an empty one, or one with
    // forbidden_zero_bit set by a bit error) is passed over. When no unit is left, `scan_done` is
    // set and next_scan_ptr is `end`. Scanning on from next_scan_ptr visits each unit once.
    void scan(const uint8_t* p, const uint8_t* end)
    {
        begin_scan(p, end);
        nal_found = nal{};
        while (p < end) {
            const h2645_common_nal_extent unit = fmt::locate(p, end);
            if (unit.data == nullptr)
                return;
            nal_found.parse(unit.data, unit.end);
            if (nal_found.valid) {
                deliver(unit, nal::header_bytes);
                return;
            }
            nal_found = nal{};
            p = unit.end;
        }
    }
};

} // namespace tremsa
