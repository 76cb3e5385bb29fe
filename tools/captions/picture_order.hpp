// Brings what pictures carry from the order of decoding into that of display. A picture with a
// decoding time is followed by none that is shown before that time (ISO/IEC 13818-1, 2.7.5), so all
// that is due until then can go on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "toolkit/pts_clock.hpp"
#include "tools/captions/cc_data.hpp"

// More than the 16 frames that a decoder may hold back, in fields (ITU-T H.264, A.3.1).
constexpr size_t most_waiting_pictures = 64;

// A picture is shown this soon after it was decoded, or its times are wrong.
constexpr int64_t longest_reordering = 10 * pts_ticks_per_second;

struct captioned_picture {
    int64_t presentation = 0; // times of presentation_clock
    int64_t decoding = 0;
    std::vector<cc_pair> pairs;
};

struct picture_order {
    void add(captioned_picture picture);

    // All that waits may go on: no more comes.
    void finish();

    // Forgets what waits.
    void drop() { waiting.clear(); }

    // In the order of display; the caller takes them from here.
    std::deque<captioned_picture> ready;

    std::deque<captioned_picture> waiting; // by their presentation times
};
