#include "v2/es/audio_pes.hpp"

#include "v2/es/video_frame.hpp"
#include "v2/hls/cut.hpp"

namespace
{

// Stream ids 0xC0 to 0xDF. Audio in private streams (0xBD) is not taken, on purpose.
bool is_audio_start_code(uint32_t start_code)
{
    return (start_code & 0x1E0) == 0x1C0;
}

} // namespace

bool io_proc_ts_packet_audio_pes(sliding_window_v4* /*in_mts*/, PIDmap& pm, mpeg_ts_packet& pkt,
                                 bool& /*stop*/, HLSbundle& bundle, const cmdopts& /*opts*/)
{
    video_frame_clear();
    video_frame_append(pkt);
    if (!ensure_pes_scanner())
        return false;

    const pes_payload pes = find_pes_payload(is_audio_start_code);
    if (pes.begin != nullptr && pes.pts >= 0 && pes.begin < pes.end)
        audio_cut(pes.pts, pm, bundle);
    return true;
}
