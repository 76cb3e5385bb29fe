// The captions of the transport stream itself: the road that takes the stream to the program, and
// the reader of its copy.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "tools/caption_feed/caption_cue.hpp"
#include "tools/caption_feed/cue_schedule.hpp"
#include "tools/caption_feed/options.hpp"
#include "tools/caption_feed/stream_road.hpp"
#include "tools/captions/broadcast_captions.hpp"

// How often the copy is read. Where more comes the road wakes the reader before its pipe is full.
constexpr int64_t broadcast_pause_ms = 200;

constexpr size_t most_waiting_broadcast_cues = 128; // of a track; then the oldest goes

struct broadcast_track {
    caption_service from;
    std::string language;
    uint64_t service = 0; // of the control socket
    cue_rate rate;
    std::deque<caption_cue> cues;
};

struct broadcast_source {
    stream_road road;
    broadcast_captions captions;
    std::vector<broadcast_track> tracks; // those of `captions`, in the same order
    int64_t next_read_ms = 0;
    bool ended = false; // the copy has been read to its end

    std::vector<std::string> languages; // of all sources; each has a service of the control socket
};

// Makes the road and the tracks that the options name; the languages of other sources come first.
// False on failure, in errno.
[[nodiscard]] bool open_broadcast(const feed_options& options, broadcast_source& source);

// Reads what the copy holds now and takes the cues out of it.
void read_broadcast(broadcast_source& source, int64_t now_ms);
