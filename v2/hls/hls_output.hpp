// One HLS rendition on disk: the fragment file that is being written now, and the playlist of the
// finished ones. Fragment files are opened by the cut or by the first write after one.
//
// There is no buffering: each packet is one write(2), so a fragment on disk is always whole up to
// the last packet handed over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "v2/playlist/m3u8_list.hpp"

struct PIDmap;

struct HLSoutput {
    int64_t cur_seq = 0;         // the open fragment's number as a playlist entry
    double frag_duration = -1.0; // seconds, of the fragment about to be retired; -1.0: not set
    int64_t opened_seq = -1;     // number of the fragment opened last; -1: none yet
    int64_t next_seq = 0;        // number of the next fragment to open
    int64_t ref_pts = 0;         // WebVTT: 90 kHz time origin of the current fragment
    std::string suffix;          // after ".ts" in fragment names: empty, or ".eng.vtt"
    std::string base_name;       // of fragment names
    std::string frag_path;       // the open fragment's file; empty when none is open
    std::string base_url;        // prefix of the playlist's URIs
    m3u8_list m3u8;
    int32_t frag_fd = -1;    // the open fragment; -1: none. Owned.
    uint64_t frag_bytes = 0; // written into the open fragment, and kept after it is closed
    uint64_t bandwidth = 0;  // bits per second; master playlist only
    uint32_t height = 0;     // pixels; master playlist only
    uint32_t width = 0;
    bool audio_only = false;        // the separate audio rendition
    bool master = false;            // carries the multilevel master playlist, and no fragments
    bool carries_ts = true;         // false for WebVTT
    bool is_sap = false;            // the secondary-audio rendition
    bool no_padding = false;        // copy of --no-padding
    bool start_pat_pmt = false;     // copy of --start-pat-pmt
    bool master_dirty = false;      // the master playlist must be rewritten at the next pass
    bool pat_nit_not_first = false; // copy of --pat-nit-not-first
    int64_t last_end_ms = -1;       // WebVTT: end of the latest cue written; -1: none

    HLSoutput() = default;
    HLSoutput(const HLSoutput&) = delete;
    HLSoutput& operator=(const HLSoutput&) = delete;

    // Closes an open fragment, which stays on disk unlisted, and rewrites the playlist unchanged.
    ~HLSoutput();

    // Opens the next fragment unless one is open, and puts the programme's tables at its start when
    // the options ask for it. False, without a message, if there is no base name or the file cannot
    // be opened (its number is consumed then) or cannot take the tables.
    [[nodiscard]] bool open_fragment(PIDmap& pm);

    // Appends one packet, opening a fragment first if none is open. On an error or a short write
    // the fragment is closed, stays on disk unlisted, and the result is false.
    [[nodiscard]] bool write(const unsigned char* data, size_t len, PIDmap& pm);

    // The same for the text of a WebVTT fragment, which never takes tables.
    [[nodiscard]] bool write_text(const std::string& text);

    // The same for a fragment that is open.
    [[nodiscard]] bool append(const unsigned char* data, size_t len);

    // Closes the current fragment, makes it a playlist entry if `frag_duration` is above 0, trims
    // the backlog and rewrites the playlist. Opens nothing.
    void retire_fragment();

    // Brings the list up to date with this output and replaces the playlist file.
    void rewrite_playlist();

private:
    [[nodiscard]] bool open_file();
    void close_file();
};
