#include "v2/demux/fragment_tables.hpp"

#include <algorithm>

#include "v2/hls/hls_output.hpp"

namespace
{

// Stamps the packet with the counter, counts on, and writes it. True also if none is kept.
[[nodiscard]] bool write_kept(kept_packet& packet, uint8_t& continuity_counter, HLSoutput& output)
{
    if (packet[0] == 0)
        return true;
    packet[3] = static_cast<uint8_t>((packet[3] & 0xF0) | (continuity_counter & 0x0F));
    continuity_counter++;
    return output.append(packet.data(), packet.size());
}

// There is no fallback to another output's.
kept_packet& pmt_for(const HLSoutput& output, PIDmap& pm)
{
    if (output.is_sap)
        return pm.sap_pmt_packet;
    return output.audio_only ? pm.audio_pmt_packet : pm.pmt_packet;
}

} // namespace

void keep_packet(kept_packet& kept, const mpeg_ts_packet& pkt)
{
    std::copy_n(pkt.raw, ts_packet_bytes, kept.data());
}

bool write_fragment_tables(HLSoutput& output, PIDmap& pm)
{
    if (!output.start_pat_pmt || !output.carries_ts)
        return true;
    if (pm.got_pat && !write_kept(pm.pat_packet, pm.pat_cc, output))
        return false;
    return !pm.got_pmt || write_kept(pmt_for(output, pm), pm.pmt_cc, output);
}
