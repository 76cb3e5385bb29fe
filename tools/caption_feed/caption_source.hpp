// A source of captions, a file, a FIFO or the output of a shell command, read without waiting.
#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

#include "tools/caption_feed/cue_schedule.hpp"
#include "tools/caption_feed/options.hpp"
#include "tools/caption_feed/vtt_reader.hpp"

// Owns its descriptor, and ends its command.
struct caption_source {
    caption_source() = default;
    caption_source(const caption_source&) = delete;
    caption_source& operator=(const caption_source&) = delete;
    ~caption_source();

    std::string language;
    uint64_t service = 0;
    std::string name; // the path or the command, as given
    vtt_reader reader;
    cue_pacing pacing;
    cue_rate rate;

    int fd = -1; // negative once the source has ended
    bool is_fifo = false;
    bool is_regular_file = false;
    pid_t command_pid = -1;
};

// Opens the path, or starts the command. The signal mask of the calling process is not passed on
// to the command: it starts with no signal blocked. False on failure; `error` says why.
[[nodiscard]] bool open_caption_source(const std::string& path_or_command, caption_source& source,
                                       std::string& error);

// Reads once what is there and feeds it to the reader. At the end of a FIFO's writer it waits for
// the next one; at any other end the source is closed. False on a read error, in errno; the source
// is closed then, too.
[[nodiscard]] bool read_caption_source(caption_source& source);

// Reports nothing more and frees the descriptor.
void close_caption_source(caption_source& source);
