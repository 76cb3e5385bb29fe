// Where vorn_mpegts_to_hls may end a fragment: at a keyframe of the video that it takes, and where
// there is none, at any PES packet of its audio. This is a cheap look, at the first slice or
// picture header of each PES packet. It says so once too often rather than once too few.
#pragma once

#include <cstdint>
#include <span>

#include "toolkit/ts/ts_packet.hpp"
#include "tools/ts_prepare/prepared_tables.hpp"

struct cut_watch {
    uint16_t pid = 0; // of the stream at which fragments end; 0: none
    uint8_t stream_type = 0;
    bool undecided = false; // a picture has begun, and its kind is still to come
};

// The programme's streams, after its PMT has come or changed.
void watch_streams(cut_watch& watch, std::span<const programme_stream> streams);

// Whether a fragment may end at this packet, or at the undecided picture before it.
[[nodiscard]] bool may_cut(cut_watch& watch, const mpeg_ts_packet& pkt);
