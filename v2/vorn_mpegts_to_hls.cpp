// vorn_mpegts_to_hls: turns a live MPEG transport stream on standard input into a rolling HLS
// presentation in the working directory. `main` owns every object of the run, and is the only place
// that decides the exit status.

#include <cstdio>
#include <cstring>
#include <tuple>

#include <fcntl.h>
#include <unistd.h>

#include "v2/base/assertion.hpp"
#include "v2/base/cmdopts.hpp"
#include "v2/captions/caption_intake.hpp"
#include "v2/clear_old.hpp"
#include "v2/demux/packet_dispatch.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/hls/hls_bundle.hpp"
#include "v2/input.hpp"
#include "v2/options.hpp"

namespace
{

constexpr int status_ok = 0;
constexpr int status_refused = 1; // cannot start, or cannot go on
constexpr int status_failed = 2;  // packets could not be processed

constexpr uint64_t window_bytes = 8 * 1024 * 1024;
constexpr uint64_t start_bytes = 2 * 1024 * 1024; // buffered before any work begins
constexpr uint64_t pass_bytes = 16 * ts_packet_bytes;

// Takes the standard descriptors that the parent left closed, so that no fragment or playlist gets
// one of them and the messages with it. Reading from it fails, as from a closed one.
void occupy_standard_descriptors()
{
    int fd = -1;
    do
        fd = open("/dev/null", O_WRONLY);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        std::ignore = close(fd);
}

bool in_root_directory()
{
    char directory[128];
    return getcwd(directory, sizeof(directory) - 1) != nullptr && std::strcmp(directory, "/") == 0;
}

// Attaches the control socket that the parent passed down. True also when there is none.
bool attach_caption_socket()
{
    if (anon_sock_fd < 0)
        return true;
    caption_socket.reset(comm_socket_v4_create());
    if (!caption_socket ||
        comm_socket_v4_connect_use_socketpair(caption_socket.get(), anon_sock_fd) < 0)
        return false;
    anon_sock_fd = -1; // the socket owns the descriptor now
    return true;
}

int report_sync_failure()
{
    std::fprintf(stderr, "Failed to sync to MPEG TS\n");
    return status_refused;
}

// Processes the start of the stream until `found` becomes true. Nothing is read here beyond the
// start-up fill, and packets are processed only while the look-ahead follows them. What is looked
// for must lie in the first start_bytes - in_mts_ahead bytes of a pipe, and in the first
// window_bytes - in_mts_ahead of a regular file, which fills the window at once.
int run_start_phase(const bool& found, HLSbundle& bundle, sliding_window_v4* in_mts, PIDmap& pm,
                    pipe_pace& pace, const cmdopts& opts)
{
    while (!found) {
        if (!refill_until(in_mts, pm, pace, pass_bytes) || !synchronise(in_mts))
            return report_sync_failure();
        if (!check_socket(opts))
            return status_refused;
        if (!process_packets(bundle, in_mts, pm, opts))
            return status_failed;
    }
    return status_ok;
}

int run_start_phases(HLSbundle& bundle, sliding_window_v4* in_mts, PIDmap& pm, pipe_pace& pace,
                     const cmdopts& opts)
{
    register_psi(pm, ts_pat_pid, psi_kind_pat);
    if (const int status = run_start_phase(pm.got_pat, bundle, in_mts, pm, pace, opts))
        return status;
    std::fprintf(stderr, "Got PAT. Chose PMT=%04xh\n", unsigned{pm.pmt_pid});

    if (const int status = run_start_phase(pm.got_pmt, bundle, in_mts, pm, pace, opts))
        return status;
    std::fprintf(stderr, "Got PMT. Chose audio=%04xh video=%04xh.\n", unsigned{pm.audio_pid},
                 unsigned{pm.video_pid});
    if (pm.audio_pid == 0 && pm.video_pid == 0) {
        std::fprintf(stderr, "Not enough to HLS chop by\n");
        return status_refused;
    }
    return status_ok;
}

int run_main_loop(HLSbundle& bundle, sliding_window_v4* in_mts, PIDmap& pm, pipe_pace& pace,
                  const cmdopts& opts)
{
    while (!pm.eof || in_mts->end - in_mts->data >= static_cast<std::ptrdiff_t>(ts_packet_bytes)) {
        // The end of the input sets pm.eof.
        std::ignore = refill_until(in_mts, pm, pace, in_mts_ahead + pass_bytes);
        if (!check_socket(opts))
            return status_refused;
        if (!synchronise(in_mts)) {
            std::fprintf(stderr, "MTS sync fail\n");
            continue;
        }
        if (!process_packets(bundle, in_mts, pm, opts)) {
            std::fprintf(stderr, "I/O proc fail\n");
            return status_failed;
        }
    }
    return status_ok;
}

} // namespace

int main(int argc, char** argv)
{
    HLSbundle bundle;
    cmdopts opts;
    PIDmap pm;
    pipe_pace pace;

    occupy_standard_descriptors();
    if (!parse_options(opts, argc, argv))
        return status_refused;
    if (isatty(STDIN_FILENO)) {
        std::fprintf(stderr, "This program can only accept an MPEG transport stream from STDIN.\n");
        return status_refused;
    }
    if (in_root_directory()) {
        std::fprintf(stderr, "Do not run me in the root of the filesystem\n");
        return status_ok; // on purpose, as below: there is nothing to do here
    }
    if (opts.clear_old) {
        if (!clear_old_output(opts))
            return status_refused;
        if (opts.clear_old_only)
            return status_ok;
    }
    if (!attach_caption_socket())
        return status_ok;
    configure_bundle(bundle, opts);

    const sliding_window_v4_ptr window{sliding_window_v4_create_buffer(window_bytes)};
    sliding_window_v4* in_mts = window.get();
    if (in_mts == nullptr) {
        std::fprintf(stderr, "Failed to create sliding window\n");
        return status_refused;
    }
    ASSERT_INVARIANT(sliding_window_v4_alloc_length(in_mts) > (in_mts_ahead * 2u),
                     "int main(int, char**)");
    if (!refill_until(in_mts, pm, pace, start_bytes)) {
        std::fprintf(stderr, "Failed to refill until\n");
        return status_refused;
    }
    if (!synchronise(in_mts))
        return report_sync_failure();

    if (const int status = run_start_phases(bundle, in_mts, pm, pace, opts))
        return status;
    if (const int status = run_main_loop(bundle, in_mts, pm, pace, opts))
        return status;

    std::fprintf(stderr, "Stream EOF\n");
    if (caption_socket) {
        comm_socket_v4_close(caption_socket.get());
        caption_socket.reset(comm_socket_v4_destroy(caption_socket.release()));
    }
    return status_ok;
}
