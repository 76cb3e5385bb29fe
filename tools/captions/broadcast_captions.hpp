// Reads the captions that a transport stream carries, as it comes, and gives out cues per track.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "tools/captions/caption_services.hpp"
#include "tools/captions/cea608.hpp"
#include "tools/captions/cea708.hpp"
#include "tools/captions/cea708_packets.hpp"
#include "tools/captions/packet_splitter.hpp"
#include "tools/captions/pes_pieces.hpp"
#include "tools/captions/presentation_clock.hpp"
#include "tools/captions/programme_tables.hpp"
#include "tools/captions/teletext_stream.hpp"
#include "tools/captions/video_captions.hpp"

struct caption_track {
    caption_service service;
    std::deque<broadcast_cue> cues = {}; // the caller takes them from here, most_kept_cues at most
    size_t lost = 0;                     // the oldest, because it was too late; it takes this, too
    bool is_announced = false;           // it is read because, and as long as, the stream says so
    bool is_read = true;
};

// One PID of teletext.
struct followed_teletext {
    uint16_t pid = 0;
    pes_pieces pes;
    bool in_packet = false;
    std::vector<uint8_t> payload; // of the PES packet at hand
    int64_t time = -1;            // of the same; -1: none yet
    bool has_time_stamps = false; // of its own
    teletext_stream pages;
};

struct broadcast_captions {
    // The tracks wanted, in any number and order, before the first bytes.
    std::vector<caption_track> tracks;

    // Whether the services that the stream announces become tracks, too, at the end of the others.
    // One whose service is announced no more goes on with the next service of its language.
    bool all_services = false;
    size_t most_tracks = 256; // whatever it announces

    // The next bytes, which may be changed.
    void feed(std::span<uint8_t> bytes);

    // Bytes are missing behind those fed.
    void lose_bytes();

    // The stream has ended.
    void finish();

    packet_splitter packets;
    followed_programme tables;
    presentation_clock clock;

    uint16_t video_pid = 0; // of the stream that is followed; 0: none
    pes_pieces video_pes;
    video_captions video;
    int64_t decoding = -1; // time of the last picture that has one; -1: none
    std::array<cea608_field, 2> fields;
    cea708_packets channel_packets;
    std::map<int, cea708_service> services; // those that are wanted, by number

    std::vector<followed_teletext> teletext;

    void take_packet(std::span<uint8_t> bytes);
    void follow_streams();
    void end_tracks_announced_no_more();
    void follow_announcements();
    void follow_video();
    void take_video(const mpeg_ts_packet& packet);
    void begin_picture(const pes_piece& piece);
    void show_pictures();
    void show_pair(int64_t time, const cc_pair& pair);
    uint16_t teletext_pid(int page) const;
    void follow_teletext();
    void take_teletext(followed_teletext& stream, const mpeg_ts_packet& packet);
    void begin_teletext(followed_teletext& stream, const pes_piece& piece);
    void forget_video();
    void forget_teletext();
    screen_cues* cues_of(const caption_service& service);
    void collect_cues();
};
