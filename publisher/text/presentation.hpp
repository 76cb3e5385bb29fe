// A presentation as records: what its playlists say and what a viewer may still fetch. Text is made
// of it, and the state on disk is its image; nothing here touches a file.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "publisher/read/stream_facts.hpp"
#include "publisher/text/date_range.hpp"
#include "toolkit/pts_clock.hpp"

// A keyframe in the file of a segment, which can be fetched alone.
struct keyframe {
    uint64_t begin = 0; // byte of the file
    uint64_t bytes = 0;
    int64_t at = 0; // ticks since the segment's beginning

    bool operator==(const keyframe&) const = default;
};

// A track's file of one segment. Where a track has none, its rendition was away.
struct segment_file {
    std::string track; // its name
    uint64_t bytes = 0;
    std::vector<keyframe> keyframes = {}; // that are listed
    uint64_t first_keyframe = 0;          // number of the first one; 0: not counted

    bool operator==(const segment_file&) const = default;
};

struct segment {
    uint64_t sequence = 0;
    // How many discontinuities the presentation has had, one that stands before this segment
    // included.
    uint64_t discontinuity_number = 0;
    bool discontinuity = false; // one stands before this segment
    bool independent = true;    // it begins with an IDR picture
    bool in_folder = false;     // its files stand in that of its hour
    int64_t duration = 0;       // 90 kHz ticks
    int64_t date = 0;           // of its first picture: ticks since 1970
    int64_t list_duration = 0;  // ticks: of the list in which it was the newest
    std::vector<segment_file> files;

    bool operator==(const segment&) const = default;
};

enum class track_kind {
    lead, // the picture, with the sound unless that goes separately: a variant of its own
    audio,
    subtitles,
};

// What has a media playlist of its own. All have the same segments.
struct track {
    std::string name; // its files begin with it: "main", "main.audio", "main.sap", "main.sub-eng"
    track_kind kind = track_kind::lead;
    std::string language; // as the stream has it; empty: none
    std::string codec;    // of audio, RFC 6381; empty: not known
    bool is_default = false;

    bool operator==(const track&) const = default;
};

// What the master playlist says of a rung: of a lead, and what goes with it.
struct rung_facts {
    std::string name;                     // of the lead
    stream_facts streams;                 // in the lead
    uint64_t peak_bandwidth = 0;          // bits per second, of all that the variant needs
    uint64_t average_bandwidth = 0;       // the same, the mean
    uint64_t keyframe_peak_bandwidth = 0; // of the keyframes alone; 0: none are listed
    uint64_t keyframe_average_bandwidth = 0;

    bool operator==(const rung_facts&) const = default;
};

struct master_facts {
    std::vector<rung_facts> rungs; // in their order
    std::vector<track> shared;     // audio and subtitles: of all rungs
    bool independent = true;

    bool operator==(const master_facts&) const = default;
};

struct presentation {
    int64_t target_duration = 0; // seconds
    bool ended = false;
    uint64_t next_sequence = 0;
    uint64_t discontinuities = 0;   // so far
    uint64_t event_begin = 0;       // an EVENT: number of its first segment; 0: it is none
    std::deque<segment> listed;     // oldest first
    std::vector<date_range> ranges; // that reach into what is listed, or come later
    master_facts master;
};

// What every list has that was not begun just now, RFC 8216 6.2.2. Ticks.
constexpr int64_t least_listed(int64_t target_duration)
{
    return 3 * target_duration * pts_ticks_per_second;
}

// File names, by the name of the track.
std::string media_playlist_name(const std::string& track);
std::string segment_file_name(const std::string& track, const segment& s);

// The folder of the hour that this date is in, UTC: "20261122T08Z".
std::string folder_of_hour(int64_t date);
bool is_folder_of_hour(std::string_view name);

// What a segment's file is named after, whose folder is left out; a number of 0: it is no segment.
struct segment_name {
    std::string track;
    uint64_t sequence = 0;
};
segment_name parse_segment_name(std::string_view file);

uint64_t bytes_of(const segment& s);

// The track that has this name: what it is shows in it.
track track_named(const std::string& name);

// The shared track of this part, "audio" or "sub-eng". The first rung names them.
std::string shared_track_name(const std::string& first_rung, const std::string& part);

// A language key of the segmenter as such a part: letters, digits and hyphens; the rest escaped.
std::string subtitle_part(const std::string& language);

// Of a rung, and no track that the rungs share.
bool is_lead(const std::string& track);

bool has_file_of(const segment& s, const std::string& track);

// The newest segments in a row that the track has, oldest first; of a long list only as many of
// them as last `enough` ticks.
constexpr int64_t all_of_it = INT64_MAX;
std::vector<const segment*> segments_of(const presentation& p, const std::string& track,
                                        int64_t enough = all_of_it);

int64_t duration_of(const std::vector<const segment*>& segments);

// The rungs that the master playlist names, in their order: those that have the newest segments for
// three target durations, which players may hold, or as long as any rung has them. So one that was
// away, or comes and goes, is named when a player can change to it without a hole.
std::vector<std::string> listed_rungs(const presentation& p);
