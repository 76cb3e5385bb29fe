#include "toolkit/ts/ts_packet.hpp"

#include "toolkit/big_endian.hpp"

// transport_packet() header, ISO/IEC 13818-1, 2.4.3.2
//   byte 0     sync_byte
//   bytes 1-2  transport_error_indicator:1 payload_unit_start_indicator:1
//              transport_priority:1 PID:13
//   byte 3     transport_scrambling_control:2 adaptation_field_control:2
//              continuity_counter:4

namespace
{

constexpr uint8_t adaptation_field_bit = 0x2; // of adaptation_field_control
constexpr uint8_t payload_bit = 0x1;

} // namespace

int mpeg_ts_decode(mpeg_ts_packet& pkt, uint8_t* p, size_t length)
{
    if (length < ts_packet_bytes || p[0] != ts_sync_byte)
        return 0;

    const uint8_t control = (p[3] >> 4) & 0x3;
    size_t payload_offset = ts_header_bytes;
    if (control & adaptation_field_bit)
        payload_offset += 1u + p[4]; // the length byte, then adaptation_field_length bytes
    if (control == 0 || payload_offset > ts_packet_bytes)
        return 0;

    pkt = {
        .transport_error_indicator = (p[1] & 0x80) != 0,
        .transport_priority = (p[1] & 0x20) != 0,
        .transport_scrambling_control = static_cast<uint8_t>(p[3] >> 6),
        .adaptation_field_control = control,
        .continuity_counter = static_cast<uint8_t>(p[3] & 0x0F),
        .pid = static_cast<uint16_t>(load_be16(p + 1) & ts_pid_mask),
        .payload_unit_start = (p[1] & 0x40) != 0,
        .payload = (control & payload_bit) ? p + payload_offset : nullptr,
        .payload_end = p + ts_packet_bytes,
        .raw = p,
    };
    return 1;
}

// adaptation_field(), ISO/IEC 13818-1, 2.4.3.4
//   byte 0     adaptation_field_length
//   byte 1     discontinuity_indicator:1 random_access_indicator:1
//              elementary_stream_priority_indicator:1 PCR_flag:1 OPCR_flag:1
//              splicing_point_flag:1 transport_private_data_flag:1
//              adaptation_field_extension_flag:1
//   bytes 2-7  if PCR_flag: program_clock_reference_base:33 reserved:6
//              program_clock_reference_extension:9
void mpeg_ts_decode_adaptation_field(mpeg_ts_packet& pkt)
{
    if ((pkt.adaptation_field_control & adaptation_field_bit) == 0)
        return;

    const uint8_t* field = pkt.raw + ts_header_bytes;
    pkt.adaptation_field = field;
    pkt.adaptation_field_length = field[0];
    if (pkt.adaptation_field_length < 1)
        return;

    pkt.discontinuity_indicator = (field[1] & 0x80) != 0;
    pkt.random_access_indicator = (field[1] & 0x40) != 0;
    const bool pcr_flag = (field[1] & 0x10) != 0;
    if (pcr_flag && pkt.adaptation_field_length >= 7) {
        const int64_t base = (int64_t{load_be32(field + 2)} << 1) | (field[6] >> 7);
        const int64_t extension = load_be16(field + 6) & 0x1FF;
        pkt.pcr = base * 300 + extension;
    }
}

uint8_t* write_ts_header(uint8_t* out, uint8_t flag_byte, uint16_t pid, uint8_t control_bits,
                         uint8_t continuity_counter)
{
    out[0] = ts_sync_byte;
    out[1] = static_cast<uint8_t>(flag_byte | ((pid & ts_pid_mask) >> 8));
    out[2] = static_cast<uint8_t>(pid);
    out[3] = static_cast<uint8_t>(control_bits | (continuity_counter & 0x0F));
    return out + ts_header_bytes;
}
