// A playlist in memory: the queue of finished fragments and what its text needs besides, RFC 8216.
// One list is either a media playlist or the multilevel master playlist; the master holds no
// entries. Each rendition owns its list; the file is only ever replaced whole.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

// One finished fragment.
struct m3u8_entry {
    std::string name;      // as in the URI, not yet escaped; empty: the rendition had no fragment
    uint64_t sequence = 0; // media sequence number
    double duration = 0.0; // seconds, above 0.0
    bool nolist = false;   // kept on disk but not listed; only at the head of the queue
    bool eraseme = false;  // condemned, awaits deletion; only at the head of the queue
    bool holdback = false; // the listing stops before this entry
};

// One subtitle rendition as the master playlist lists it.
struct subtitle_rendition {
    std::string code;          // language code or service tag
    std::string base_url;      // copied unescaped before the file name
    std::string playlist_name; // file name of its media playlist
};

struct m3u8_list {
    // Oldest at the front; appended at the back only, removed at the front only.
    std::deque<m3u8_entry> entries;

    std::string file_name;        // empty for renditions without a playlist, whose text then goes
                                  // to ".tmp" and stays there because the rename fails
    std::string base_url;         // prefix of every URI, unescaped
    uint64_t list_size = 0;       // newest entries listed
    uint64_t nolist_count = 0;    // older entries kept on disk unlisted
    uint64_t holdback_max = 0;    // newest entries that may be held back from the listing
    uint64_t target_duration = 0; // seconds

    // Master playlist only.
    uint64_t bandwidth = 0; // bits per second; 0: not measured yet
    uint32_t height = 0;    // pixels; 0: unknown
    uint32_t width = 0;
    bool master = false;
    std::string variant_uri;                   // file name of the variant's media playlist
    std::string audio_playlist;                // empty: no audio rendition
    std::string sap_playlist;                  // empty: no secondary-audio rendition
    std::vector<subtitle_rendition> subtitles; // in ascending order of the code's bytes

    // What the rendition is, as its output knows it. The text does not depend on it.
    bool carries_ts = true;
    bool is_sap = false;
    bool audio_only = false;

    // Does nothing on a master list, as do the next two.
    void append_entry(const m3u8_entry& entry);

    // Sets the flags of all entries: the newest `list_size` are listed, the next `nolist_count`
    // stay unlisted, all older are condemned. Flags nolist and eraseme are never cleared.
    void mark_entries();

    // Removes the condemned entries from the head of the queue and unlinks their files, reporting
    // each. A condemned entry was already unlisted in the playlist on disk.
    void delete_old_fragments();

    // Replaces the playlist file. False if the temporary file (file_name + ".tmp") could not be
    // created or could not take the playlist's name; nothing is printed then. Readers see the old
    // playlist or the new one, never a mixture. Short writes inside the file are not detected.
    [[nodiscard]] bool write_m3u8();
};
