// The command line of vorn_caption_feed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

enum class feed_pace {
    automatic, // realtime for regular files, none for everything else
    realtime,  // a cue is sent when its time comes
    none,      // a cue is sent when it has been read
};

struct caption_option {
    std::string language;
    std::string source; // a path, or "|" and a shell command
};

struct feed_options {
    std::vector<caption_option> captions; // one per language, at most 256
    std::optional<uint64_t> base_ticks;
    feed_pace pace = feed_pace::automatic;
    int64_t lead_ms = 1000;
    std::vector<std::string> command; // the program and its arguments
    bool help = false;
};

extern const char feed_usage[];

// False when the command line cannot be used; `error` says why.
[[nodiscard]] bool parse_feed_options(int argc, char* const argv[], feed_options& options,
                                      std::string& error);
