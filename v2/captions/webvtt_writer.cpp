#include "v2/captions/webvtt_writer.hpp"

#include <cstdio>
#include <tuple>

#include "v2/captions/caption_intake.hpp"
#include "v2/captions/cue_placement.hpp"
#include "v2/captions/webvtt_text.hpp"
#include "v2/hls/hls_bundle.hpp"

namespace
{

HLSoutput& vtt_output_of(const std::string& key, HLSbundle& bundle)
{
    const auto found = vtt_outputs.find(key);
    return found != vtt_outputs.end() ? found->second : create_vtt_output(bundle, key);
}

// Makes `origin` the fragment's and writes its header, unless it has one already; opens the
// fragment if need be. False if the header cannot be written.
bool begin_fragment(HLSoutput& output, const std::string& key, int64_t origin)
{
    if (output.frag_fd >= 0 && output.frag_bytes != 0)
        return true;
    if (origin < output.ref_pts)
        output.last_end_ms = -1; // the clock went back
    output.ref_pts = origin;
    return output.write_text(webvtt_header(key, origin));
}

void drain_queue(std::deque<vtt_cue>& queue, const std::string& key, HLSoutput& output,
                 const HLSoutput& main_out, int64_t window_end, int64_t origin)
{
    while (!queue.empty()) {
        const bool begun = begin_fragment(output, key, origin);
        const vtt_cue& cue = queue.front();
        const vtt_cue* next = queue.size() > 1 ? &queue[1] : nullptr;
        const auto times = place_cue(cue, next, output.ref_pts, window_end, output.last_end_ms);
        if (!times)
            return; // waits for its end

        if (output.opened_seq != main_out.opened_seq)
            std::fprintf(stderr, "VTT lang '%s' fragment mismatch: ts=%lld vtt=%lld (BUG!)\n",
                         key.c_str(), static_cast<long long>(main_out.opened_seq),
                         static_cast<long long>(output.opened_seq));
        // No fragment may begin with a cue: a header that failed is tried once more.
        if (begun || begin_fragment(output, key, origin))
            std::ignore = output.write_text(
                webvtt_cue_block(times->start, times->end, cue.cue_settings, cue.text));
        queue.pop_front();
    }
}

} // namespace

void io_proc_emit_vtt(long long /*pts*/, long long /*window_start*/, long long window_end,
                      long long frag_start, HLSbundle& bundle)
{
    const HLSoutput& main_out = bundle.main_out;
    if (!bundle.master_out.master || main_out.frag_fd < 0)
        return;
    for (auto& [key, queue] : vtt_queues)
        drain_queue(queue, key, vtt_output_of(key, bundle), main_out, window_end, frag_start);
}
