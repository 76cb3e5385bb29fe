#include "tools/ts_prepare/notices.hpp"

#include <cstdarg>
#include <cstdio>

void tell(notice_board& board, notice_kind kind, int64_t now_us, const char* format, ...)
{
    constexpr int64_t interval_us = 10'000'000;
    notice_board::entry& entry = board.entries[static_cast<size_t>(kind)];
    if (entry.told_us >= 0 && now_us - entry.told_us < interval_us) {
        entry.untold++;
        return;
    }

    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments); // a longer line is cut
    va_end(arguments);
    std::string line = std::string("vorn_ts_prepare: ") + text;
    if (entry.untold != 0)
        line += " (and " + std::to_string(entry.untold) + " more since the last such line)";
    board.lines.push_back(std::move(line));
    entry = {.told_us = now_us, .untold = 0};
}
