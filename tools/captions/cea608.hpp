// The closed captions of CEA-608 (ANSI/CTA-608): one field's pairs of bytes become what each of its
// two caption channels shows. Text channels and programme data are passed over.
#pragma once

#include <array>
#include <cstdint>

#include "toolkit/pts_clock.hpp"
#include "tools/captions/caption_screen.hpp"
#include "tools/captions/screen_cues.hpp"

constexpr int cea608_rows = 15;
constexpr int cea608_columns = 32;

// A channel that is sent nothing for so long is erased, as receivers have to do: what would end the
// caption has been lost.
constexpr int64_t cea608_erase_ticks = 16 * pts_ticks_per_second;

struct cea608_memory {
    std::array<std::array<caption_cell, cea608_columns>, cea608_rows> cells;

    bool operator==(const cea608_memory&) const = default;
};

struct cea608_channel {
    enum class mode { none, pop_on, paint_on, roll_up };

    mode at = mode::none;
    bool in_text = false; // what comes is for the text channel beside it
    cea608_memory displayed;
    cea608_memory hidden;
    int row = cea608_rows - 1;
    int column = 0; // cea608_columns: behind the last
    int roll_rows = 2;
    caption_style pen;
    int64_t last_taken = 0; // when something was last sent to it
    bool is_silent = true;  // nothing was, or so long ago that the channel has been erased
    screen_cues cues;       // what it shows
};

struct cea608_field {
    // The pair is shown from `time` on.
    void take(int64_t time, uint8_t first, uint8_t second);

    // It is this late: ends what has been on screen for too long.
    void advance(int64_t time);

    // Begins anew, since what follows has another clock.
    void forget();

    std::array<cea608_channel, 2> channels;
    int selected = -1;         // the channel that characters go to; -1: to none
    uint16_t last_control = 0; // to pass over its repetition; 0: the last pair was none

    void take_control(int64_t time, uint8_t first, uint8_t second);
};
