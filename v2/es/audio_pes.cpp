#include "v2/es/audio_pes.hpp"

#include "v2/base/assertion.hpp"
#include "v2/es/pes_start.hpp"
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
    if (!pkt.payload_unit_start)
        return true;
    if (!current_pes.begin(pkt))
        return false;
    const std::optional<pes_payload> found = current_pes.find(is_audio_start_code);
    if (!found)
        return true;

    const auto [s, f, pts] = *found;
    // True whatever the stream holds: a header that PES_packet_length does not cover is none.
    ASSERT_INVARIANT(s >= video_frame && s <= f, __PRETTY_FUNCTION__);
    if (pts >= 0 && s < f)
        audio_cut(pts, pm, bundle);
    return true;
}
