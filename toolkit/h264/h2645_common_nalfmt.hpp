// How NAL units are laid out in a byte range: the byte stream format, ITU-T H.264, Annex B.
#pragma once

#include <cstdint>

namespace tremsa
{

// Where one NAL unit lies in a range; `data` is null when the range holds no further unit.
struct h2645_common_nal_extent {
    const uint8_t* start = nullptr; // the start code's first byte, its zero_byte included
    const uint8_t* data = nullptr;  // past the start code
    const uint8_t* end = nullptr;   // the next start code, or the range's end
};

// The format a default-constructed reader uses. Another way to delimit units (length fields, say)
// would be another type with the same `locate`.
struct h2645_common_nalfmt {
    // The first unit whose start code lies wholly in [p, end). Bytes before the start code belong
    // to no unit. The extent may be empty: nothing stands between two start codes in a row, or
    // after a start code that ends the range.
    static h2645_common_nal_extent locate(const uint8_t* p, const uint8_t* end);
};

} // namespace tremsa
