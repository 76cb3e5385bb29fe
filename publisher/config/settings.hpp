// What one process is to do: from the command line alone, or from a configuration file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "publisher/follow/http_client.hpp"

// What may be asked for. Seconds.
constexpr double least_segment = 0.5;
constexpr double most_segment = 60;
constexpr int64_t most_target_duration = 60;
constexpr int64_t most_window = 7 * 24 * 3600;
constexpr double most_wait = 30;
constexpr int64_t least_pid = 16; // below are tables
constexpr int64_t most_pid = 8190;

// Where the numbers of segments come from.
enum class numbering {
    count,  // each is the next one
    stream, // the time of the stream, which two publishers on two machines tell alike
};

struct rendition_settings {
    std::string name = "main";
    // Directories, and URLs of directories: of one stream, to stand in for each other.
    std::vector<std::string> sources;
    std::string m3u8_name = "ch1.m3u8";
    int64_t scte35_pid = 0; // of the splice information; 0: the PMT says it
    double wait = 0; // seconds that a damaged GOP waits for a better one; 0: as long as a GOP lasts
};

struct publisher_settings {
    std::string output;
    std::string playlist = "index.m3u8";
    double segment = 6;          // seconds wanted
    int64_t target_duration = 0; // seconds
    int64_t window = 0;          // seconds listed
    std::string dvr;             // in place of it, as "24h": kept in folders, to seek back in
    std::string dvr_bytes;       // that this may take at most, as "200G"; empty: any
    bool event = false;          // its playlists are of the type EVENT until something leaves them
    bool in_folders = false;     // derived of `dvr`
    uint64_t most_bytes = 0;     // derived of `dvr_bytes`; 0: any
    bool iframes = false;        // keyframes are listed alone too
    std::string state;           // path of the database
    std::string listen;          // ADDRESS:PORT of the metrics; empty: none
    numbering numbers = numbering::count;
    std::vector<std::string> peers; // URLs of the directories that others publish the same in
    http_settings fetch;            // of sources and peers that are URLs
    std::vector<rendition_settings> renditions;
};

std::vector<std::string> rendition_names(const publisher_settings& settings);

// Reads the file; false: `error` is one line that names file, line and key.
[[nodiscard]] bool read_settings(const std::string& path, publisher_settings& settings,
                                 std::string& error);

// Derives what was left open and finds mistakes that are not of one key alone. `error` is one line.
[[nodiscard]] bool complete_settings(publisher_settings& settings, std::string& error);

// What may be changed while a presentation is live; `error` says why the rest may not.
[[nodiscard]] bool may_change(const publisher_settings& now, const publisher_settings& wanted,
                              std::string& error);
