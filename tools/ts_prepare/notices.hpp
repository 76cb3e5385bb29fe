// Lines for standard error, at most one of each kind in ten seconds; what came in between is
// counted and told with the next one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum class notice_kind {
    continuity,
    transport_error,
    sync_loss,
    input_format,
    tables,
    programme,
    silence,
    input_is_back,
    clock,
    splices,
    rtp,
    count,
};

struct notice_board {
    struct entry {
        int64_t told_us = -1; // when a line was written last; -1: never
        uint64_t untold = 0;  // events since then
    };
    std::array<entry, static_cast<size_t>(notice_kind::count)> entries;
    std::vector<std::string> lines; // to be printed, without their ends
};

// Adds a line, unless one of its kind was added in the last ten seconds.
[[gnu::format(printf, 4, 5)]] void tell(notice_board& board, notice_kind kind, int64_t now_us,
                                        const char* format, ...);
