#include "v2/demux/programme_selection.hpp"

#include <cstdio>
#include <tuple>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/program_map.hpp"
#include "v2/demux/rendition_pmt.hpp"

namespace
{

constexpr std::ptrdiff_t pat_entry_bytes = 4;

bool locked(const PIDmap& pm)
{
    return pm.pmt_pid != 0 || pm.program_number != 0;
}

void handle_section(PIDstate& state, PIDmap& pm, mpeg_ts_packet& pkt, bool& stop,
                    const mpeg_ts_pat_main_header* header, const unsigned char* data,
                    const unsigned char* end, const cmdopts& opts)
{
    if (state.kind == psi_kind_pat) {
        if (pkt.pid == ts_pat_pid && header->table_id == pat_table_id &&
            header->section_syntax_indicator && !header->private_bit &&
            header->current_next_indicator)
            handle_pat(pm, stop, data, end);
    } else if (state.kind == psi_kind_pmt) {
        if (pkt.pid == pm.pmt_pid && header->table_id == pmt_table_id &&
            header->current_next_indicator)
            std::ignore = io_proc_ts_packet_on_pmt(state, pm, pkt, stop, header, data, end,
                                                   opts); // always true
    }
}

// The first video stream is the video.
kept_packet* take_video(PIDmap& pm, uint16_t pid, uint32_t kind)
{
    if (pm.video_pid != 0)
        return nullptr;
    pm.video_pid = pid;
    pm.video_kind = kind;
    return &pm.pmt_packet;
}

// The first audio stream is the audio, the second the secondary audio, whatever their kinds.
kept_packet* take_audio(PIDmap& pm, uint16_t pid, uint32_t kind)
{
    if (pm.audio_pid == 0) {
        pm.audio_pid = pid;
        pm.audio_kind = kind;
        return &pm.audio_pmt_packet;
    }
    if (pm.sap_pid == 0) {
        pm.sap_pid = pid;
        pm.sap_kind = kind;
        return &pm.sap_pmt_packet;
    }
    return nullptr;
}

// Takes the stream into the place that is free for it. Returns where its own PMT is kept, or null
// if the stream was not chosen. PID 0 means none, so a stream that has it leaves its place free.
kept_packet* choose_stream(PIDmap& pm, const mpeg_ts_pat_map_entry& stream)
{
    switch (stream.stream_type) {
    case stream_type_h264:
        return take_video(pm, stream.pid, video_kind_h264);
    case stream_type_mpeg1_video:
    case stream_type_mpeg2_video:
        return take_video(pm, stream.pid, video_kind_mpeg);
    case stream_type_mpeg1_audio:
    case stream_type_mpeg2_audio:
        return take_audio(pm, stream.pid, audio_kind_mpeg);
    case stream_type_aac_adts:
        return take_audio(pm, stream.pid, audio_kind_aac);
    default:
        return nullptr;
    }
}

} // namespace

bool assemble_psi(PIDstate& state, PIDmap& pm, mpeg_ts_packet& pkt, bool& stop, const cmdopts& opts)
{
    if (pkt.payload_unit_start)
        mpeg_ts_table_assembly_complete(state.assembly);
    else
        mpeg_ts_table_assembly_add(state.assembly, pkt);

    const mpeg_ts_pat_main_header* header = nullptr;
    const unsigned char* data = nullptr;
    const unsigned char* end = nullptr;
    const bool ready = mpeg_ts_table_assembly_take_ready(state.assembly, header, data, end) != 0;
    if (ready)
        handle_section(state, pm, pkt, stop, header, data, end, opts);

    if (ready || pkt.payload_unit_start)
        mpeg_ts_table_assembly_discard(state.assembly);
    if (pkt.payload_unit_start)
        mpeg_ts_table_assembly_begin(state.assembly, nullptr, pkt);
    return true;
}

// program_association_section() loop, ISO/IEC 13818-1, 2.4.4.3
//   bytes 0-1  program_number, 0 for the network_PID entry
//   bytes 2-3  reserved:3 program_map_PID:13
void handle_pat(PIDmap& pm, bool& stop, const unsigned char* data, const unsigned char* end)
{
    for (; end - data >= pat_entry_bytes; data += pat_entry_bytes) {
        const uint16_t program_number = load_be16(data);
        const uint16_t pid = load_be16(data + 2) & ts_pid_mask;
        if (program_number == 0 || pid == 0 || locked(pm))
            continue;

        stop = true;
        pm.pmt_pid = pid;
        pm.program_number = program_number;
        pm.got_pat = true;
        std::fprintf(stderr, "PAT: Locking onto Program %04xh PMT %04xh\n",
                     unsigned{program_number}, unsigned{pid});
        register_psi(pm, pid, psi_kind_pmt);
    }
}

bool io_proc_ts_packet_on_pmt(PIDstate& /*state*/, PIDmap& pm, mpeg_ts_packet& pkt, bool& stop,
                              const mpeg_ts_pat_main_header* header, const unsigned char* data,
                              const unsigned char* end, const cmdopts& opts)
{
    pm.audio_pid = 0;
    pm.sap_pid = 0;
    pm.video_pid = 0;

    mpeg_ts_pat_map_header map;
    if (mpeg_ts_pat_map_header_decode(map, data, end) == 0)
        return true; // nothing is followed until the next good PMT

    stop = true;
    pm.got_pmt = true;
    for (const mpeg_ts_pat_map_entry& stream : map.entries) {
        kept_packet* target = choose_stream(pm, stream);
        if (target != nullptr && opts.separate_streams)
            build_rendition_pmt(pm, pkt, header, stream, *target);
    }
    return true;
}
