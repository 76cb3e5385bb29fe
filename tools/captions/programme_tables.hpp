// Finds the programme's streams in its tables, the same programme that vorn_mpegts_to_hls takes:
// the first of the first PAT.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "toolkit/ts/table_assembly.hpp"
#include "tools/captions/caption_services.hpp"
#include "tools/captions/video_captions.hpp"

struct teletext_stream_entry {
    uint16_t pid = 0;
    std::vector<caption_service> services; // that its descriptors announce

    bool operator==(const teletext_stream_entry&) const = default;
};

struct programme_streams {
    uint16_t video_pid = 0; // 0: none
    video_coding video = video_coding::none;
    std::vector<teletext_stream_entry> teletext;
    std::vector<caption_service> services; // all that descriptors announce, in order

    bool operator==(const programme_streams&) const = default;
};

struct followed_programme {
    followed_programme();

    // Takes a packet of any PID. True when the streams have changed.
    [[nodiscard]] bool take(const mpeg_ts_packet& packet);

    programme_streams streams;

    uint16_t pmt_pid = 0; // 0: not known yet
    mpeg_ts_table_assembly pat;
    mpeg_ts_table_assembly pmt;
};
