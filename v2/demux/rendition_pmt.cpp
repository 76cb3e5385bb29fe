#include "v2/demux/rendition_pmt.hpp"

#include <algorithm>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/crc32.hpp"
#include "v2/base/assertion.hpp"

namespace
{

constexpr uint16_t max_program_info_bytes = 79;
constexpr uint16_t pcr_pid_reserved_bits = 0xE000;

// Room for whatever a received section can hold, so that nothing overflows before the checks.
constexpr size_t workspace_bytes = 2 * 4096;

// The check belongs to the handling of a PMT, and is reported as its own.
constexpr const char* on_pmt =
    "bool io_proc_ts_packet_on_pmt(PIDstate&, PIDmap&, mpeg_ts_packet&, bool&, "
    "const mpeg_ts_pat_main_header*, const unsigned char*, const unsigned char*, const cmdopts&)";

} // namespace

void build_rendition_pmt(PIDmap& pm, mpeg_ts_packet& pkt, const mpeg_ts_pat_main_header* header,
                         const mpeg_ts_pat_map_entry& stream, kept_packet& target)
{
    const mpeg_ts_table_assembly& received = pm.psi.at(pkt.pid).assembly;
    const uint8_t* body = received.buffer.data() + psi_main_header_bytes; // from PCR_PID on
    const uint16_t program_info_length = pmt_program_info_length(body);
    if (!stream.raw_available || program_info_length > max_program_info_bytes)
        return;

    std::array<uint8_t, workspace_bytes> packet;
    uint8_t* p = packet.data();
    const uint8_t* f = p + ts_packet_bytes;

    p = write_ts_header(p, ts_flag_payload_unit_start, pkt.pid, ts_control_payload_only, 0);
    *p++ = 0; // pointer_field
    const uint8_t* section = p;
    mpeg_ts_pat_main_header own_header = *header;
    p = write_ts_pat_main_header(p, own_header);

    store_be16(p, static_cast<uint16_t>(pcr_pid_reserved_bits | stream.pid));
    p = std::copy_n(body + 2, pmt_fixed_bytes - 2 + program_info_length, p + 2);
    ASSERT_INVARIANT(p <= f, on_pmt);
    p = std::copy_n(stream.raw, pmt_stream_entry_bytes + stream.es_info_length, p);
    ASSERT_INVARIANT(p <= f, on_pmt);

    rewrite_ts_pat_main_header_section_length(own_header, p);
    p = write_ts_checksum(p, section, p);
    ASSERT_INVARIANT(p <= f, on_pmt);

    std::fill(p, packet.data() + ts_packet_bytes, uint8_t{0xFF});
    std::copy_n(packet.data(), ts_packet_bytes, target.data());
}
