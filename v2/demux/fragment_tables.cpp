#include "v2/demux/fragment_tables.hpp"

#include <algorithm>

namespace
{

// Stamps the packet with the counter and counts on; null if no packet is kept.
const kept_packet* stamp(kept_packet& packet, uint8_t& continuity_counter)
{
    if (packet[0] == 0)
        return nullptr;
    packet[3] = static_cast<uint8_t>((packet[3] & 0xF0) | (continuity_counter & 0x0F));
    continuity_counter++;
    return &packet;
}

} // namespace

void keep_packet(kept_packet& kept, const mpeg_ts_packet& pkt)
{
    std::copy_n(pkt.raw, ts_packet_bytes, kept.data());
}

const kept_packet* next_fragment_pat(PIDmap& pm)
{
    return pm.got_pat ? stamp(pm.pat_packet, pm.pat_cc) : nullptr;
}

const kept_packet* next_fragment_pmt(PIDmap& pm, rendition of)
{
    if (!pm.got_pmt)
        return nullptr;
    switch (of) {
    case rendition::secondary_audio:
        return stamp(pm.sap_pmt_packet, pm.pmt_cc);
    case rendition::audio:
        return stamp(pm.audio_pmt_packet, pm.pmt_cc);
    case rendition::main:
        break;
    }
    return stamp(pm.pmt_packet, pm.pmt_cc);
}
