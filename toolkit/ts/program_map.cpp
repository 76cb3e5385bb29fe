#include "toolkit/ts/program_map.hpp"

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/ts_packet.hpp"

// TS_program_map_section() after the 8-byte header
//   bytes 0-1  reserved:3 PCR_PID:13
//   bytes 2-3  reserved:4 program_info_length:12
//              program_info_length bytes of descriptors
//   then, per stream:
//   byte 0     stream_type
//   bytes 1-2  reserved:3 elementary_PID:13
//   bytes 3-4  reserved:4 ES_info_length:12
//              ES_info_length bytes of descriptors
uint16_t pmt_program_info_length(const uint8_t* body)
{
    return load_be16(body + 2) & 0x0FFF;
}

int mpeg_ts_pat_map_header_decode(mpeg_ts_pat_map_header& map, const uint8_t* data,
                                  const uint8_t* end)
{
    map = mpeg_ts_pat_map_header{};
    if (end - data < static_cast<std::ptrdiff_t>(pmt_fixed_bytes))
        return 0;

    map.pcr_pid = load_be16(data) & ts_pid_mask;
    map.program_info_length = pmt_program_info_length(data);
    data += pmt_fixed_bytes;
    if (end - data < map.program_info_length)
        return 0;
    data += map.program_info_length;

    while (data < end) {
        if (end - data < static_cast<std::ptrdiff_t>(pmt_stream_entry_bytes))
            return 0;

        const mpeg_ts_pat_map_entry entry{
            .stream_type = data[0],
            .pid = static_cast<uint16_t>(load_be16(data + 1) & ts_pid_mask),
            .es_info_length = static_cast<uint16_t>(load_be16(data + 3) & 0x0FFF),
            .raw = data,
            .raw_available = true,
        };
        data += pmt_stream_entry_bytes;
        if (end - data < entry.es_info_length)
            return 0;
        data += entry.es_info_length;
        map.entries.push_back(entry);
    }
    return 1;
}
