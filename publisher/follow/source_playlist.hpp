// Playlists as the segmenter writes them, read back. They say which fragments belong to the
// presentation that is followed. A playlist is bounded, and a name that would lead out of its
// directory is none.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t most_playlist_bytes = size_t{1} << 20;

// The segmenter ends itself at 64 MiB.
constexpr uint64_t most_fragment_bytes = uint64_t{96} << 20;

// A fragment name taken apart: BASE.NUMBER.ts, with at least eight digits.
struct fragment_name {
    std::string base;
    uint64_t number = 0;

    bool operator==(const fragment_name&) const = default;
};

// The part of a run's names that its renditions share.
std::string_view stem_of(std::string_view base);

std::optional<fragment_name> parse_fragment_name(std::string_view name);
std::string fragment_file_name(const fragment_name& name);
// The subtitles of a fragment's file.
std::string subtitle_file_name(const std::string& fragment, const std::string& language);

// The file that a URI of a playlist names, without the prefix it may have, its escapes undone;
// empty where that is no plain file name.
std::string file_name_of_uri(std::string_view uri);

struct source_media_playlist {
    std::vector<fragment_name> fragments; // oldest first
    int64_t newest_ms = 0;                // how long the last of them is said to last; 0: not said
};

struct source_subtitles {
    std::string language; // the key that the segmenter gives its files
    std::string name;
};

struct source_master_playlist {
    std::string lead;            // file of the playlist with video, or audio alone
    bool separate_audio = false; // a rendition of its own has the audio
    bool secondary_audio = false;
    std::vector<source_subtitles> subtitles;
};

// Whether the text is a master playlist.
bool is_master_playlist(std::string_view text);
source_media_playlist parse_source_media(std::string_view text);
source_master_playlist parse_source_master(std::string_view text);
