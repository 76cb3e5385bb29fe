// The command line of vorn_ts_prepare.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct prepare_options {
    int64_t pad_to = 40'000'000; // bits per second; 0: no padding
    bool pad_always = false;     // not only where a fragment may end
    std::optional<uint16_t> programme =
        {}; // program_number of the one that goes through; none: all do
    bool drop_service_information = false;
    int64_t table_us = 500'000;    // the tables come at least so often,
    uint64_t table_bytes = 250000; // and after no more of the input than this
    bool keep_time = false;
    int64_t linger_us = 0; // after the input's end, for another one
    int64_t stats_us = 0;  // between two lines of counters; 0: none
    bool describe = false;
    bool json = false;
    int frag_duration = 4; // seconds
    bool help = false;
};

extern const char prepare_usage[];

// False when the command line cannot be used; `error` says why.
[[nodiscard]] bool parse_prepare_options(int argc, char* const argv[], prepare_options& options,
                                         std::string& error);
