// The command line of vorn_caption_feed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/captions/caption_services.hpp"

constexpr size_t most_languages = 256; // each has a caption service of the control socket

enum class feed_pace {
    automatic, // realtime for regular files, none for everything else
    realtime,  // a cue is sent when its time comes
    none,      // a cue is sent when it has been read
};

struct caption_option {
    std::string language;
    std::string source; // a path, or "|" and a shell command
};

// A language may come from a WebVTT source or from the stream itself, but once in all.

struct feed_options {
    std::vector<caption_option> captions;
    std::vector<caption_service> services; // in the stream itself
    bool all_services = false;             // those that the stream announces, too
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
