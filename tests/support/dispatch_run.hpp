// The road of packets behind the input: what is put into the window is processed as in a run.
#pragma once

#include <algorithm>

#include "tests/support/bundle_run.hpp"
#include "tests/support/packetiser.hpp"
#include "v2/demux/packet_dispatch.hpp"

inline constexpr uint16_t pmt_pid = 0x1000;
inline constexpr uint16_t video_pid = 0x101;
inline constexpr uint16_t audio_pid = 0x102;
inline constexpr uint16_t sap_pid = 0x103;
inline constexpr size_t window_bytes = in_mts_ahead + 64 * packet_bytes;

// A run whose input has ended, so that all that is put into the window is processed.
struct dispatch_run : bundle_run {
    explicit dispatch_run(const cmdopts& options = {})
        : bundle_run(options), window(sliding_window_v4_create_buffer(window_bytes))
    {
        register_psi(pm, ts_pat_pid, psi_kind_pat);
        pm.eof = true;
    }

    // As after the programme was chosen and its first keyframe has cut.
    void start()
    {
        pm.got_pat = pm.got_pmt = pm.output_started = true;
        pm.pmt_pid = pmt_pid;
        register_psi(pm, pmt_pid, psi_kind_pmt);
        pm.video_pid = video_pid;
        pm.video_kind = video_kind_h264;
        pm.audio_pid = audio_pid;
        pm.sap_pid = sap_pid;
    }

    void put(const byte_string& bytes)
    {
        window->end = std::copy(bytes.begin(), bytes.end(), window->end);
    }

    bool process()
    {
        bool carry_on = false;
        printed = stderr_of([&] { carry_on = process_packets(bundle, window.get(), pm, opts); });
        return carry_on;
    }

    // Packets of those put in that have been taken.
    [[nodiscard]] std::ptrdiff_t taken() const
    {
        return (window->data - window->buffer) / static_cast<std::ptrdiff_t>(packet_bytes);
    }

    // The rendition's first fragment.
    [[nodiscard]] byte_string written(const std::string& base = "ch1") const
    {
        const file_map files = directory.files();
        const auto found = files.find(base + ".00000000.ts");
        return found == files.end() ? byte_string{} : found->second;
    }

    sliding_window_v4_ptr window;
    std::string printed;
};
