// What holds of the files of a run at every instant, whatever went wrong: each playlist present is
// whole, and lists only fragments that are there and whole.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/scratch_directory.hpp"

struct listed_fragments {
    uint64_t first_sequence = 0;    // 0 when none is listed
    std::vector<std::string> names; // those that the playlist names, oldest first
};

// Reads a media playlist line by line; nothing when it is not exactly what one may look like.
std::optional<listed_fragments> parse_media_playlist(const std::string& text);

// True for a whole master playlist.
bool is_master_playlist(const std::string& text);

// The playlists among the files, by name; those being written (".tmp") are nobody's yet.
bool is_playlist(const std::string& name);

// All fragments of a run in which nothing went wrong and nothing was deleted, as their bytes but
// for the continuity counters of tables, which count differently when a fragment was given up.
class whole_fragments
{
public:
    explicit whole_fragments(const file_map& files);

    // A transport fragment as that run wrote it, or WebVTT text that begins and ends as it must.
    [[nodiscard]] bool contains(const std::string& name, const byte_string& content) const;

private:
    std::set<byte_string> contents_;
};

// Empty when all holds; else what does not. A playlist in `may_be_torn` is not looked at.
std::string fault_in(const file_map& files, const whole_fragments& whole,
                     const std::set<std::string>& may_be_torn = {});
