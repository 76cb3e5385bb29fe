#include "v2/hls/cut.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <tuple>

#include "toolkit/pts_clock.hpp"
#include "v2/base/continuous_time.hpp"
#include "v2/captions/webvtt_text.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/hls/hls_bundle.hpp"
#include "v2/playlist/rendition_groups.hpp"

namespace
{

// Fragments shorter or smaller than this tell nothing about the bandwidth.
constexpr double min_measured_seconds = 1.0;
constexpr uint64_t min_measured_bytes = 1023;

int64_t target_ticks(const HLSbundle& bundle)
{
    return static_cast<int64_t>(bundle.main_out.m3u8.target_duration) * pts_ticks_per_second;
}

bool within_cut_window(const PIDmap& pm, int64_t pts)
{
    return pm.cut_window_start <= pts && pts <= pm.cut_window_end;
}

double seconds(int64_t ticks)
{
    return static_cast<double>(ticks) / pts_ticks_per_second;
}

// Of a fragment, in seconds, above 0. Nothing for one that cannot be measured: no playlist entry is
// made of it.
using measured_duration = std::optional<double>;

// What a cut measures and fixes.
struct planned_cut {
    measured_duration duration; // of the fragment that ends
    int64_t base;               // ticks; the next cut is due a target duration after it
};

// The cut at a time outside the window. After a backward step the next one stays due as counted
// from the old window's end.
planned_cut cut_outside_window(const PIDmap& pm, const HLSbundle& bundle, int64_t pts)
{
    const bool forward = pts > pm.frag_start_pts;
    return {.duration = seconds(forward ? pts - pm.frag_start_pts : target_ticks(bundle)),
            .base = std::max(pts, pm.cut_window_end)};
}

// Opens the window of the fragment that begins at `pts`.
void open_cut_window(PIDmap& pm, const HLSbundle& bundle, int64_t pts, int64_t base)
{
    pm.frag_start_pts = pts;
    pm.cut_window_start = pts - pts_ticks_per_second;
    pm.cut_window_end = std::max(base + target_ticks(bundle), pts + pts_ticks_per_second);
}

void accumulate(PIDmap& pm, int64_t pts)
{
    if (pm.last_video_pts >= 0 && pts > pm.last_video_pts &&
        pts <= pm.frag_start_pts + max_continuous_ticks)
        pm.pts_accum += pts - pm.last_video_pts;
    pm.last_video_pts = pts;
}

// A wrap of the clock, or another stream: the distance to the fragment's start says nothing.
bool is_discontinuity(const PIDmap& pm, int64_t pts)
{
    return pm.frag_start_pts >= 0 && std::abs(pts - pm.frag_start_pts) > max_continuous_ticks;
}

// Passes the bandwidth of the fragment being closed and the picture size on to the master playlist.
void update_master(HLSbundle& bundle, const PIDmap& pm, measured_duration duration)
{
    HLSoutput& master = bundle.master_out;
    if (!master.master)
        return;

    master.height = pm.video_height;
    master.width = pm.video_width;
    master.master_dirty = true;
    const uint64_t bytes = bundle.main_out.frag_bytes;
    if (duration && *duration > min_measured_seconds && bytes > min_measured_bytes)
        master.bandwidth = static_cast<uint64_t>(static_cast<double>(bytes) * 8.0 / *duration);
}

// A duration that is not measured stays not set.
void retire(HLSoutput& output, measured_duration duration)
{
    if (duration)
        output.frag_duration = *duration;
    output.retire_fragment();
}

// In this order, whether or not they were ever opened.
void retire_transport_outputs(HLSbundle& bundle, measured_duration duration)
{
    for (HLSoutput* output : {&bundle.main_out, &bundle.audio_out, &bundle.sap_out})
        retire(*output, duration);
}

void cut_vtt_output(const std::string& key, HLSoutput& output, measured_duration duration,
                    int64_t next_seq, PIDmap& pm)
{
    if (output.frag_fd >= 0 && output.frag_bytes == 0) {
        std::fprintf(stderr,
                     "WebVTT language fragment '%s' never got any events, writing empty file\n",
                     key.c_str());
        std::ignore = output.write_text(webvtt_empty_body(key)); // the fragment is over anyway
    }
    retire(output, duration);
    output.next_seq = next_seq;
    std::ignore = output.open_fragment(pm); // the next cue tries again
}

void cut_all(HLSbundle& bundle, PIDmap& pm, const cmdopts& opts, measured_duration duration)
{
    update_master(bundle, pm, duration);
    if (!vtt_outputs.empty())
        subtitles_group = "subs";

    retire_transport_outputs(bundle, duration);
    const int64_t next_seq = bundle.main_out.next_seq;
    bundle.audio_out.next_seq = next_seq;
    bundle.sap_out.next_seq = next_seq;
    for (auto& [key, output] : vtt_outputs)
        cut_vtt_output(key, output, duration, next_seq, pm);

    // An output that cannot be opened shows at its next packet.
    std::ignore = bundle.main_out.open_fragment(pm);
    if (opts.separate_streams)
        std::ignore = bundle.audio_out.open_fragment(pm);
    if (opts.separate_streams && opts.sap)
        std::ignore = bundle.sap_out.open_fragment(pm);
}

} // namespace

void video_cut(int64_t pts, bool is_keyframe, PIDmap& pm, HLSbundle& bundle, const cmdopts& opts)
{
    accumulate(pm, pts);
    if (!is_keyframe)
        return;

    planned_cut cut{.duration = {}, .base = pts};
    if (pm.cut_window_end >= 0 && !is_discontinuity(pm, pts)) {
        if (within_cut_window(pm, pts))
            return;
        cut = cut_outside_window(pm, bundle, pts);
    } else if (1 <= pm.pts_accum && pm.pts_accum <= max_continuous_ticks) {
        cut.duration = seconds(pm.pts_accum);
    }

    open_cut_window(pm, bundle, pts, cut.base);
    pm.pts_accum = 0;
    cut_all(bundle, pm, opts, cut.duration);
    pm.output_started = true;
}

void audio_cut(int64_t pts, PIDmap& pm, HLSbundle& bundle)
{
    planned_cut cut{.duration = {}, .base = pts};
    if (pm.cut_window_end >= 0) {
        if (within_cut_window(pm, pts))
            return;
        cut = cut_outside_window(pm, bundle, pts); // forward by any distance
    }

    open_cut_window(pm, bundle, pts, cut.base);
    retire_transport_outputs(bundle, cut.duration);
    pm.output_started = true;
}
