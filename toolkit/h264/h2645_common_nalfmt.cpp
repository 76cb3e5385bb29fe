#include "toolkit/h264/h2645_common_nalfmt.hpp"

#include "toolkit/start_code.hpp"

namespace tremsa
{

namespace
{

constexpr int start_code_prefix_bytes = 3; // start_code_prefix_one_3bytes

// A zero_byte before the prefix belongs to the start code; it never lies before `floor`.
const uint8_t* with_zero_byte(const uint8_t* floor, const uint8_t* prefix)
{
    return prefix != floor && prefix[-1] == 0 ? prefix - 1 : prefix;
}

} // namespace

// byte_stream_nal_unit(), B.1.1
//   leading_zero_8bits           any number of zero bytes
//   zero_byte:8                  0x00, before some units only
//   start_code_prefix_one_3bytes:24
//   nal_unit( NumBytesInNALunit )
//   trailing_zero_8bits          any number of zero bytes; left in the unit, see more_rbsp_data()
h2645_common_nal_extent h2645_common_nalfmt::locate(const uint8_t* p, const uint8_t* end)
{
    const uint8_t* prefix = find_start_code_prefix(p, end);
    if (prefix == end)
        return {};

    const uint8_t* data = prefix + start_code_prefix_bytes;
    const uint8_t* next = find_start_code_prefix(data, end);
    return {
        .start = with_zero_byte(p, prefix),
        .data = data,
        .end = next == end ? end : with_zero_byte(data, next),
    };
}

} // namespace tremsa
