#include "tests/support/psi_builder.hpp"

#include "tests/support/bit_writer.hpp"

uint32_t bitwise_crc32(const byte_string& bytes)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        for (int bit = 7; bit >= 0; bit--) {
            const bool feedback = ((crc >> 31) ^ ((byte >> bit) & 1u)) != 0;
            crc = (crc << 1) ^ (feedback ? 0x04C11DB7u : 0u);
        }
    }
    return crc;
}

byte_string build_section(const section_fields& fields, const byte_string& body)
{
    const size_t length_to_crc = 5 + body.size() + 4;
    bit_writer bits;
    bits.u(8, fields.table_id)
        .u(1, fields.section_syntax_indicator)
        .u(1, fields.private_bit)
        .u(2, 3) // reserved
        .u(12, fields.section_length.value_or(static_cast<uint16_t>(length_to_crc)))
        .u(16, fields.table_id_extension)
        .u(2, 3) // reserved
        .u(5, fields.version_number)
        .u(1, fields.current_next_indicator)
        .u(8, fields.section_number)
        .u(8, fields.last_section_number);

    const byte_string covered = concat({bits.bytes(), body});
    bit_writer crc;
    crc.u(32, fields.crc.value_or(bitwise_crc32(covered)));
    return concat({covered, crc.bytes()});
}

byte_string build_pat(const pat_fields& fields)
{
    bit_writer body;
    for (const pat_programme& programme : fields.programmes)
        body.u(16, programme.number).u(3, programme.reserved).u(13, programme.pid);
    return build_section(fields.section, body.bytes());
}

byte_string build_pmt(const pmt_fields& fields)
{
    bit_writer head;
    head.u(3, 7)
        .u(13, fields.pcr_pid)
        .u(4, 0xF)
        .u(12,
           fields.program_info_length.value_or(static_cast<uint16_t>(fields.program_info.size())));

    byte_string body = concat({head.bytes(), fields.program_info});
    for (const pmt_stream& stream : fields.streams) {
        bit_writer entry;
        entry.u(8, stream.stream_type)
            .u(3, 7)
            .u(13, stream.pid)
            .u(4, 0xF)
            .u(12,
               stream.es_info_length.value_or(static_cast<uint16_t>(stream.descriptors.size())));
        append(body, entry.bytes());
        append(body, stream.descriptors);
    }
    append(body, fields.left_over);
    return build_section(fields.section, body);
}

byte_string build_descriptor(uint8_t tag, const byte_string& data)
{
    const uint8_t head[] = {tag, static_cast<uint8_t>(data.size())};
    return concat({head, data});
}

byte_string section_unit(const byte_string& section, const byte_string& before_start)
{
    const uint8_t pointer_field[] = {static_cast<uint8_t>(before_start.size())};
    return concat({pointer_field, before_start, section});
}
