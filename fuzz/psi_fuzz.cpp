// Transport packets, PSI assembly and the choice of programme and streams.

#include <array>

#include "fuzz/fuzz_input.hpp"
#include "v2/demux/network_entry.hpp"
#include "v2/demux/programme_selection.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    const cmdopts opts;
    PIDmap pm;
    register_psi(pm, ts_pat_pid, psi_kind_pat);

    while (!input.empty()) {
        std::array<uint8_t, ts_packet_bytes> packet{};
        std::ranges::copy(input.take(packet.size()), packet.begin());
        packet[0] = ts_sync_byte;

        mpeg_ts_packet pkt;
        if (mpeg_ts_decode(pkt, packet.data(), packet.size()) == 0)
            continue;
        mpeg_ts_decode_adaptation_field(pkt);
        require(pkt.payload == nullptr || pkt.payload <= pkt.payload_end);

        if (move_nit_last(pkt))
            rewrite_pat_crc(pkt);
        const auto psi = pm.psi.find(pkt.pid);
        bool stop = false;
        if (psi != pm.psi.end())
            require(assemble_psi(psi->second, pm, pkt, stop, opts));
        require(!pm.got_pmt || pm.got_pat);
    }
    return 0;
}
