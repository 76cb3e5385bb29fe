// Subtitle pages out of the PES packets of a teletext stream (ETSI EN 300 472). Only the packets of
// the pages that are wanted reach the decoder, so what a service has else costs nothing.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "toolkit/pts_clock.hpp"
#include "tools/captions/screen_cues.hpp"
#include "tools/captions/teletext_decoder.hpp"

// A page that is neither sent again nor erased for so long is taken to be forgotten: what would end
// it has been lost.
constexpr int64_t teletext_erase_ticks = 30 * pts_ticks_per_second;

// A page is complete when the next header comes. Where none comes for so long, it is, too.
constexpr int64_t teletext_complete_ticks = pts_ticks_per_second;

struct teletext_page {
    int64_t last_taken = 0;
    screen_cues cues;
};

struct teletext_stream {
    // A page, 0x100 to 0x8FF, is wanted from now on.
    void want(int page) { pages.try_emplace(page); }

    // One PES packet's payload; what it completes is shown from `time` on.
    void take(int64_t time, std::span<const uint8_t> payload);

    // Packets are missing: what comes next may belong to another page.
    void lose_packets();

    // It is this late.
    void advance(int64_t time);

    // Begins anew, since what follows has another clock.
    void forget();

    std::map<int, teletext_page> pages;
    teletext_decoder_ptr decoder;              // made with the first packet
    std::array<bool, 8> in_wanted_page = {};   // by magazine, 8 as 0
    std::array<int64_t, 8> page_begun_at = {}; // the time of its header
    std::array<bool, 8> is_inhibited = {};     // its header says not to show it

    void take_packet(int64_t time, teletext_packet packet);
    void take_header(int64_t time, size_t magazine, teletext_packet packet);
    void end_page(size_t magazine);
    void end_pages_begun_before(int64_t time);
    void decode(size_t magazine, teletext_packet packet);
};
