#include "v2/es/video_pes.hpp"

#include "toolkit/pts_clock.hpp"
#include "v2/base/assertion.hpp"
#include "v2/captions/webvtt_writer.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/es/keyframe.hpp"
#include "v2/es/pes_start.hpp"
#include "v2/hls/cut.hpp"

namespace
{

// Added to the end of the cut window for cues, which may belong to the fragment for that long.
constexpr int64_t cue_slack_ticks = 3 * pts_ticks_per_second;

// Appends the payloads of the packets of `pid` that follow in the window, up to the next PES start
// or until the frame buffer is full. Consumes nothing.
void gather_ahead(const sliding_window_v4* in_mts, uint16_t pid)
{
    constexpr auto packet_bytes = static_cast<std::ptrdiff_t>(ts_packet_bytes);
    mpeg_ts_packet ahead;
    for (uint8_t* q = in_mts->data; in_mts->end - q >= packet_bytes; q += packet_bytes) {
        if (mpeg_ts_decode(ahead, q, ts_packet_bytes) == 0)
            return; // lost sync included
        if (ahead.pid != pid)
            continue;
        if (ahead.payload_unit_start)
            return;
        video_frame_append(ahead);
        if (video_frame_sz >= sizeof(video_frame))
            return;
    }
}

// The video stream ids 0xE0 to 0xEF, and 0xF0 (ECM_stream), which is accepted beside them on
// purpose.
bool is_video_start_code(uint32_t start_code)
{
    return start_code == 0x1F0 || (start_code & 0x1F0) == 0x1E0;
}

} // namespace

bool io_proc_ts_packet_video_pes(sliding_window_v4* in_mts, PIDmap& pm, mpeg_ts_packet& pkt,
                                 bool& /*stop*/, HLSbundle& bundle, const cmdopts& opts)
{
    gather_ahead(in_mts, pkt.pid);
    const std::optional<pes_payload> found = current_pes.find(is_video_start_code);
    if (!found)
        return true;

    const auto [s, f, pts] = *found;
    // True whatever the stream holds: a header that PES_packet_length does not cover is none.
    ASSERT_INVARIANT(s >= video_frame && s <= f, __PRETTY_FUNCTION__);
    if (pts < 0)
        return true;
    const bool is_keyframe = s < f && is_video_keyframe(s, f, pm);
    video_cut(pts, is_keyframe, pm, bundle, opts);
    io_proc_emit_vtt(pts, pm.cut_window_start, pm.cut_window_end + cue_slack_ticks,
                     pm.frag_start_pts, bundle);
    return true;
}
