#include "tests/support/ts_builder.hpp"

#include "tests/support/bit_writer.hpp"

namespace
{

void append_pcr(bit_writer& bits, const pcr_fields& pcr)
{
    bits.u(33, pcr.base).u(6, 0x3F).u(9, pcr.extension);
}

void append_counted(bit_writer& bits, const byte_string& bytes)
{
    bits.u(8, bytes.size());
    for (const uint8_t byte : bytes)
        bits.u(8, byte);
}

} // namespace

byte_string build_adaptation_field(const adaptation_fields& fields)
{
    bit_writer bits;
    if (!fields.empty) {
        bits.u(1, fields.discontinuity_indicator)
            .u(1, fields.random_access_indicator)
            .u(1, fields.elementary_stream_priority_indicator)
            .u(1, fields.pcr.has_value())
            .u(1, fields.opcr.has_value())
            .u(1, fields.splice_countdown.has_value())
            .u(1, fields.transport_private_data.has_value())
            .u(1, fields.extension.has_value());
        if (fields.pcr)
            append_pcr(bits, *fields.pcr);
        if (fields.opcr)
            append_pcr(bits, *fields.opcr);
        if (fields.splice_countdown)
            bits.u(8, *fields.splice_countdown);
        if (fields.transport_private_data)
            append_counted(bits, *fields.transport_private_data);
        if (fields.extension)
            append_counted(bits, *fields.extension);
        for (size_t i = 0; i < fields.stuffing; i++)
            bits.u(8, 0xFF);
    }

    byte_string out = bits.bytes();
    out.insert(out.begin(), fields.length.value_or(static_cast<uint8_t>(out.size())));
    return out;
}

byte_string build_ts_packet(const ts_fields& fields)
{
    const int control = (fields.adaptation ? 2 : 0) | (fields.has_payload ? 1 : 0);
    bit_writer header;
    header.u(8, fields.sync_byte)
        .u(1, fields.transport_error_indicator)
        .u(1, fields.payload_unit_start)
        .u(1, fields.transport_priority)
        .u(13, fields.pid)
        .u(2, fields.transport_scrambling_control)
        .u(2, fields.adaptation_field_control.value_or(static_cast<uint8_t>(control)))
        .u(4, fields.continuity_counter);

    byte_string out = header.bytes();
    if (fields.adaptation)
        append(out, build_adaptation_field(*fields.adaptation));
    if (fields.has_payload)
        append(out, fields.payload);
    out.resize(packet_bytes, 0xFF);
    return out;
}

byte_string null_packets(size_t count)
{
    const byte_string packet = build_ts_packet({.pid = null_pid});
    byte_string out;
    out.reserve(count * packet_bytes);
    for (size_t i = 0; i < count; i++)
        append(out, packet);
    return out;
}
