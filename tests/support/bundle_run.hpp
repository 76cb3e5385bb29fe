// All renditions of a run in a fresh working directory, as main() makes them, and nothing left of
// what earlier tests put into process-wide variables.
#pragma once

#include "tests/support/captured_stderr.hpp"
#include "tests/support/working_directory.hpp"
#include "v2/captions/caption_intake.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/hls/hls_bundle.hpp"
#include "v2/playlist/rendition_groups.hpp"

struct bundle_run {
    explicit bundle_run(const cmdopts& options = {}) : opts(options)
    {
        forget_process_wide_state();
        configure_bundle(bundle, opts);
    }
    ~bundle_run() { forget_process_wide_state(); }
    bundle_run(const bundle_run&) = delete;
    bundle_run& operator=(const bundle_run&) = delete;

    scratch_working_directory directory; // outlives the bundle, which writes playlists at its end
    const cmdopts opts;
    PIDmap pm;
    HLSbundle bundle;

private:
    static void forget_process_wide_state()
    {
        vtt_queues.clear();
        vtt_outputs.clear();
        subtitles_group.clear();
    }
};
