#include "toolkit/ts/ts_packet.hpp"

uint8_t* write_ts_header(uint8_t* out, uint8_t flag_byte, uint16_t pid, uint8_t control_bits,
                         uint8_t continuity_counter)
{
    out[0] = ts_sync_byte;
    out[1] = static_cast<uint8_t>(flag_byte | ((pid & ts_pid_mask) >> 8));
    out[2] = static_cast<uint8_t>(pid);
    out[3] = static_cast<uint8_t>(control_bits | (continuity_counter & 0x0F));
    return out + ts_header_bytes;
}
