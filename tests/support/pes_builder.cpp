#include "tests/support/pes_builder.hpp"

#include "tests/support/bit_writer.hpp"

namespace
{

// '001x' 33 bits in three pieces, each closed by a marker bit.
void append_time_stamp(bit_writer& bits, unsigned prefix, int64_t time)
{
    const auto value = static_cast<uint64_t>(time);
    bits.u(4, prefix).u(3, value >> 30).u(1, 1).u(15, value >> 15).u(1, 1).u(15, value).u(1, 1);
}

byte_string header_data(const pes_fields& fields)
{
    bit_writer bits;
    if (fields.pts)
        append_time_stamp(bits, fields.dts ? 3 : 2, *fields.pts);
    if (fields.dts)
        append_time_stamp(bits, 1, *fields.dts);
    for (size_t i = 0; i < fields.header_stuffing; i++)
        bits.u(8, 0xFF);
    return bits.bytes();
}

byte_string optional_header(const pes_fields& fields)
{
    const byte_string data = header_data(fields);
    const int flags = (fields.pts ? 2 : 0) | (fields.dts ? 1 : 0);
    bit_writer bits;
    bits.u(2, fields.marker)
        .u(2, 0) // PES_scrambling_control
        .u(1, 0) // PES_priority
        .u(1, fields.data_alignment_indicator)
        .u(1, 0) // copyright
        .u(1, 0) // original_or_copy
        .u(2, fields.pts_dts_flags.value_or(static_cast<uint8_t>(flags)))
        .u(6, 0) // ESCR to PES_extension_flag
        .u(8, fields.header_data_length.value_or(static_cast<uint8_t>(data.size())));
    return concat({bits.bytes(), data});
}

} // namespace

byte_string build_pes(const pes_fields& fields)
{
    const byte_string rest =
        fields.optional_header ? concat({optional_header(fields), fields.payload}) : fields.payload;
    const size_t length = fields.length == pes_length::zero ? 0 : rest.size();
    bit_writer start;
    start.u(24, 1)
        .u(8, fields.stream_id)
        .u(16, fields.packet_length.value_or(static_cast<uint16_t>(length)));
    return concat({start.bytes(), rest});
}
