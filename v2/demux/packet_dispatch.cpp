#include "v2/demux/packet_dispatch.hpp"

#include <cstdio>

#include "v2/demux/fragment_tables.hpp"
#include "v2/demux/network_entry.hpp"
#include "v2/demux/programme_selection.hpp"
#include "v2/es/audio_pes.hpp"
#include "v2/es/pes_start.hpp"
#include "v2/es/video_pes.hpp"
#include "v2/hls/hls_bundle.hpp"

namespace
{

// A main fragment of this size means that no cut point is ever found.
constexpr uint64_t stalled_fragment_bytes = 64 * 1024 * 1024;

uint64_t buffered(const sliding_window_v4* in_mts)
{
    return static_cast<uint64_t>(in_mts->end - in_mts->data);
}

// Whether the PID is the PAT's or the PMT's: those that have a PSI assembler. Until the programme
// is locked pmt_pid is 0, which is the PAT's.
bool carries_tables(uint16_t pid, const PIDmap& pm)
{
    return pid == ts_pat_pid || pid == pm.pmt_pid;
}

// Packets that the options take out of the output. Tables reach the fragments only at their starts
// when they are regenerated there. Here and for the tables the main rendition's copies of the
// options are asked, because they say what its fragments hold; where a packet goes, the command
// line says.
bool is_filtered(const mpeg_ts_packet& pkt, const PIDmap& pm, const HLSoutput& main_out)
{
    if (main_out.no_padding && pkt.pid == ts_null_pid)
        return true;
    return main_out.start_pat_pmt && carries_tables(pkt.pid, pm);
}

// The rendition that takes packets of this PID; null: none. PID 0 in the PIDmap means that there is
// no such stream.
HLSoutput* route(uint16_t pid, HLSbundle& bundle, const PIDmap& pm, const cmdopts& opts)
{
    if (!opts.separate_streams)
        return &bundle.main_out;
    if (pm.video_pid != 0 && pid == pm.video_pid)
        return &bundle.main_out;
    if (pm.audio_pid != 0 && pid == pm.audio_pid)
        return &bundle.audio_out;
    if (opts.sap && pm.sap_pid != 0 && pid == pm.sap_pid)
        return &bundle.sap_out;
    return nullptr;
}

bool dispatch_psi(PIDstate& state, PIDmap& pm, mpeg_ts_packet& pkt, bool& stop,
                  const HLSoutput& main_out, const cmdopts& opts)
{
    if (state.kind != psi_kind_pat && state.kind != psi_kind_pmt)
        return true;

    if (pkt.pid == ts_pat_pid) {
        if (main_out.pat_nit_not_first && move_nit_last(pkt))
            rewrite_pat_crc(pkt);
        if (main_out.start_pat_pmt)
            keep_packet(pm.pat_packet, pkt);
    } else if (main_out.start_pat_pmt && !opts.separate_streams) {
        keep_packet(pm.pmt_packet, pkt);
    }
    return assemble_psi(state, pm, pkt, stop, opts);
}

bool dispatch_video(sliding_window_v4* in_mts, PIDmap& pm, mpeg_ts_packet& pkt, bool& stop,
                    HLSbundle& bundle, const cmdopts& opts)
{
    if (!pkt.payload_unit_start)
        return true; // the video's handler reads on in the window by itself
    if (!current_pes.begin(pkt))
        return false;
    if (in_mts->data != pkt.raw + ts_packet_bytes)
        std::fprintf(stderr, "WARNING: s->data is not 188 bytes past current packet?\n");
    return io_proc_ts_packet_video_pes(in_mts, pm, pkt, stop, bundle, opts);
}

} // namespace

bool process_packets(HLSbundle& bundle, sliding_window_v4* in_mts, PIDmap& pm, const cmdopts& opts)
{
    const uint64_t required = (pm.eof ? 0 : in_mts_ahead) + ts_packet_bytes;
    rewrite_master_if_dirty(bundle);
    if (buffered(in_mts) < required)
        return false;

    bool stop = false;
    // A packet that cannot be decoded has no PID to go by, and is not filtered: it follows the
    // packet before it in this call. The first in a call goes where PID 0 goes.
    uint16_t routing_pid = ts_pat_pid;
    while (!stop && buffered(in_mts) >= required) {
        uint8_t* packet = in_mts->data;
        in_mts->data += ts_packet_bytes;
        if (packet[0] != ts_sync_byte)
            break; // the next pass synchronises again

        mpeg_ts_packet pkt;
        if (mpeg_ts_decode(pkt, packet, ts_packet_bytes) != 0) {
            routing_pid = pkt.pid;
            mpeg_ts_decode_adaptation_field(pkt);
            if (!dispatch_packet(in_mts, pm, pkt, stop, bundle, opts))
                return false;
            if (is_filtered(pkt, pm, bundle.main_out))
                continue;
        }

        if (!pm.got_pat || !pm.got_pmt || !pm.output_started)
            continue;
        HLSoutput* output = route(routing_pid, bundle, pm, opts);
        if (output != nullptr && !output->write(packet, ts_packet_bytes, pm)) {
            std::fprintf(stderr, "HLS out write error\n");
            return false;
        }
    }

    if (bundle.main_out.frag_bytes >= stalled_fragment_bytes) {
        std::fprintf(stderr, "HLS cutting is not happening\n");
        return false;
    }
    return true;
}

bool dispatch_packet(sliding_window_v4* in_mts, PIDmap& pm, mpeg_ts_packet& pkt, bool& stop,
                     HLSbundle& bundle, const cmdopts& opts)
{
    if (carries_tables(pkt.pid, pm))
        return dispatch_psi(pm.psi.at(pkt.pid), pm, pkt, stop, bundle.main_out, opts);
    // PID 0 in the PIDmap, for no such stream, is the PAT's and does not come here.
    if (pkt.pid == pm.video_pid)
        return dispatch_video(in_mts, pm, pkt, stop, bundle, opts);
    // With a video stream the cuts follow its keyframes, and audio is not looked at.
    if (pm.video_pid == 0 && pkt.pid == pm.audio_pid)
        return io_proc_ts_packet_audio_pes(in_mts, pm, pkt, stop, bundle, opts);
    return true;
}
