// One caption service of CEA-708 (ANSI/CTA-708, 7 and 8): its blocks become what its windows show.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "toolkit/pts_clock.hpp"
#include "tools/captions/caption_screen.hpp"
#include "tools/captions/screen_cues.hpp"

constexpr int cea708_rows = 15; // of the screen, and the most of a window
constexpr int cea708_columns = 42;

// What a service may send while a delay (DLY) keeps it waiting; more ends the delay.
constexpr size_t cea708_buffer_bytes = 128;

// As with CEA-608.
constexpr int64_t cea708_erase_ticks = 16 * pts_ticks_per_second;

struct cea708_window {
    bool defined = false;
    bool visible = false;
    bool relative = false; // the anchor is in percent
    int anchor_vertical = 0;
    int anchor_horizontal = 0;
    int anchor_id = 0; // the window's point there, 0 to 8 from its upper left
    int rows = 1;
    int columns = 1;
    bool centred = false; // its lines

    int row = 0; // of the pen
    int column = 0;
    caption_style pen;
    std::array<std::array<caption_cell, cea708_columns>, cea708_rows> cells;
};

struct cea708_service {
    // A block of the service, shown from `time` on.
    void take(int64_t time, std::span<const uint8_t> block);

    // It is this late: ends delays, and what has been on screen for too long.
    void advance(int64_t time);

    // Something that was sent is lost: deletes all windows, as the command RST does.
    void reset(int64_t time);

    // Begins anew, since what follows has another clock.
    void forget();

    screen_cues cues;

    std::array<cea708_window, 8> windows;
    size_t current = 0;
    std::vector<uint8_t> pending; // codes that a delay holds back, or whose parameters are to come
    int64_t delayed_until = -1;   // -1: no delay
    int64_t last_taken = 0;
    bool changed_whole = false;   // by the block at hand
    bool changed_letters = false; // the same

    void take_pending(int64_t time);
    void take_code(int64_t time, std::span<const uint8_t> code);
    void take_control(uint8_t code);
    void take_command(std::span<const uint8_t> command);
    void take_windows_command(std::span<const uint8_t> command);
    void put_character(char32_t character);
};
