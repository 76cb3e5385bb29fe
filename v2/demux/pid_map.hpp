// PIDmap: the one demultiplexer record of a run. `main` owns it; every stage is handed it whole.
// Its fields stand in groups, each headed by the stage that owns it.
#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "toolkit/h264/h2645_common_base_store.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"
#include "toolkit/ts/table_assembly.hpp"
#include "toolkit/ts/ts_packet.hpp"

constexpr uint32_t psi_kind_pat = 1;
constexpr uint32_t psi_kind_pmt = 2;

constexpr uint32_t video_kind_none = 0;
constexpr uint32_t video_kind_h264 = 1;
constexpr uint32_t video_kind_mpeg = 2; // MPEG-1 or MPEG-2 video

constexpr uint32_t audio_kind_mpeg = 1;
constexpr uint32_t audio_kind_aac = 2; // AAC in ADTS

// PSI state of one PID.
struct PIDstate {
    uint32_t kind = 0; // psi_kind_pat or psi_kind_pmt
    uint32_t pid = 0;  // 0 for the PAT, the PMT's PID for a PMT
    mpeg_ts_table_assembly assembly;
};

// A transport packet kept whole for the start of fragments; a first byte of 0 means none kept yet.
using kept_packet = std::array<uint8_t, ts_packet_bytes>;

struct PIDmap {
    // PSI assemblers by PID.
    std::map<uint16_t, PIDstate> psi;

    // Input.
    bool eof = false; // standard input has ended

    // Programme selection. The programme is locked once a run: when pmt_pid or program_number is
    // not 0.
    bool got_pat = false;
    kept_packet pat_packet{}; // tables for fragment starts
    uint8_t pat_cc = 0;       // next continuity_counter of a PAT at a fragment start
    uint16_t pmt_pid = 0;
    uint16_t program_number = 0;
    bool got_pmt = false;           // a PMT of the locked programme has been handled
    kept_packet sap_pmt_packet{};   // for the secondary-audio rendition
    kept_packet audio_pmt_packet{}; // for the audio rendition
    kept_packet pmt_packet{};       // for the main rendition
    uint8_t pmt_cc = 0; // next continuity_counter of a PMT at a fragment start: one counter for the
                        // three packets on purpose, although they go to different files

    // The cut: the first fragments are open, or may be opened by the next packet.
    bool output_started = false;

    // Programme selection, anew with each PMT. PID 0: none.
    uint16_t video_pid = 0;
    uint32_t video_kind = video_kind_none;

    // H.264 keyframe test: the parameter sets and the picture size of the last SPS in luma samples.
    tremsa::h2645_common_base_store<tremsa::h264_nal_sps> sps_store;
    tremsa::h2645_common_base_store<tremsa::h264_nal_pps> pps_store;
    uint32_t video_width = 0; // 0: unknown
    uint32_t video_height = 0;

    // Programme selection, anew with each PMT. PID 0: none.
    uint16_t audio_pid = 0;
    uint32_t audio_kind = 0;
    uint16_t sap_pid = 0;
    uint32_t sap_kind = 0;

    // The cut. 90 kHz ticks; -1: unknown.
    int64_t cut_window_start = -1; // a keyframe below it cuts: the clock went back
    int64_t cut_window_end = -1;   // a keyframe strictly above it cuts: the fragment is due
    int64_t last_video_pts = -1;   // PTS of the previous video PES packet
    int64_t pts_accum = 0;         // forward PTS steps since the last cut
    int64_t frag_start_pts = -1;   // PTS that opened the current fragments
};

// Finds or inserts the PSI state of `pid` and sets it anew: its kind, and an empty assembly.
void register_psi(PIDmap& pm, uint16_t pid, uint32_t kind);
