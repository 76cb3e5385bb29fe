// A presentation as records: what its playlists say and what a viewer may still fetch. Text is made
// of it, and the state on disk is its image; nothing here touches a file.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "publisher/read/stream_facts.hpp"

// A rendition's file of one segment. All renditions have the same segments.
struct segment_file {
    std::string track; // "" is the lead: the picture, with the sound unless that goes separately
    uint64_t bytes = 0;

    bool operator==(const segment_file&) const = default;
};

struct segment {
    uint64_t sequence = 0;
    // How many discontinuities the presentation has had, one that stands before this segment
    // included.
    uint64_t discontinuity_number = 0;
    bool discontinuity = false; // one stands before this segment
    bool independent = true;    // it begins with an IDR picture
    int64_t duration = 0;       // 90 kHz ticks
    int64_t date = 0;           // of its first picture: ticks since 1970
    std::vector<segment_file> files;

    bool operator==(const segment&) const = default;
};

enum class track_kind { lead, audio, subtitles };

struct track {
    std::string name; // "", "audio", "sap", "sub-eng"
    track_kind kind = track_kind::lead;
    std::string language; // as the stream has it; empty: none
    bool is_default = false;

    bool operator==(const track&) const = default;
};

// What the master playlist says.
struct master_facts {
    stream_facts streams;
    std::vector<track> tracks;      // the lead first
    uint64_t peak_bandwidth = 0;    // bits per second, of all that a variant needs
    uint64_t average_bandwidth = 0; // the same, the mean
    bool independent = true;

    bool operator==(const master_facts&) const = default;
};

struct presentation {
    std::string name;            // of the rendition: its files begin with it
    int64_t target_duration = 0; // seconds
    bool ended = false;
    uint64_t next_sequence = 0;
    uint64_t discontinuities = 0; // so far
    std::deque<segment> listed;   // oldest first
    master_facts master;
};

// File names. The tracks of one rendition tell themselves apart by a second part.
std::string media_playlist_name(const std::string& rendition, const track& of);
std::string segment_file_name(const std::string& rendition, const track& of, uint64_t sequence);

// The track that has this name: what it is shows in it.
track track_named(const std::string& name);

// A language key of the segmenter as part of a name: letters, digits and hyphens; the rest escaped.
std::string subtitle_track_name(const std::string& language);
