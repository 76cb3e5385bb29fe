#include "tools/ts_prepare/options.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include <getopt.h>

const char prepare_usage[] =
    R"(usage: vorn_ts_prepare [OPTION ...] < STREAM | vorn_mpegts_to_hls --no-padding ...
       vorn_ts_prepare --describe [--json] [--frag-duration SECONDS] < STREAM

Makes a live MPEG transport stream fit for vorn_mpegts_to_hls: from standard input to
standard output. It puts the tables in front and repeats them, fills the stream up with
null packets so that nothing waits in the program's look-ahead, takes the stream out of
RTP and out of packets of 192 or 204 bytes, and lets time go on where the clock jumps.
Everything else passes as it is.

  --pad-to RATE           fill up to this rate in bits a second; k and M stand for
                          thousands and millions, 0 turns padding off. The default,
                          auto, stands for 40M where that brings a fragment forward:
                          at the start, behind each keyframe and in a pause of the
                          input. A regular file is never filled up.
  --programme N           let through the programme with this number (its service id),
                          and leave out the others
  --service-id N          the same
  --drop-si               with --programme, leave out service information as well:
                          PIDs 0001h to 001Fh
  --table-interval MS     repeat PAT and PMT when none have come for so many
                          milliseconds. Default: 500
  --table-bytes BYTES     or for so many bytes of the input. Default: 250000
  --keep-time             leave time stamps alone where the clock jumps
  --linger SECONDS        when the input ends, wait so long for another writer to open
                          the FIFO on standard input. Default: 0
  --stats SECONDS         print counters on standard error every so many seconds, as
                          one line of JSON, and once at the end
  --describe              do nothing of this: say what is in the stream, whether
                          vorn_mpegts_to_hls takes it, and which fragments it gives
  --json                  say so in JSON
  --frag-duration SECONDS the fragment duration to reckon with. Default: 4
  --help                  print this text

The exit status is 0 when the input has ended, 1 when the command line or the standard
streams cannot be used, 2 when reading or writing fails or the reader has gone.
)";

namespace
{

// A whole number in [lowest, highest], 0x for hexadecimal.
bool parse_number(std::string_view text, int64_t lowest, int64_t highest, int64_t& value)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    const char* const end = text.data() + text.size();
    const auto [last, failure] = std::from_chars(text.data(), end, value, base);
    return failure == std::errc{} && last == end && value >= lowest && value <= highest;
}

[[nodiscard]] bool parse_pad_to(std::string_view text, prepare_options& options, std::string& error)
{
    constexpr int64_t lowest = 1'000'000;
    constexpr int64_t highest = 1'000'000'000;
    if (text == "auto") {
        options.pad_to = prepare_options{}.pad_to;
        options.pad_always = false;
        return true;
    }
    int64_t factor = 1;
    if (text.ends_with('k'))
        factor = 1000;
    else if (text.ends_with('M'))
        factor = 1'000'000;
    if (factor != 1)
        text.remove_suffix(1);
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [last, failure] =
        std::from_chars(text.data(), end, number, std::chars_format::fixed);
    const double rate = number * static_cast<double>(factor);
    const bool in_range = rate == 0 || (rate >= lowest && rate <= highest);
    if (failure != std::errc{} || last != end || !in_range) {
        error = "--pad-to needs a rate from 1M to 1000M, 0 or auto";
        return false;
    }
    options.pad_to = std::llround(rate);
    options.pad_always = true;
    return true;
}

[[nodiscard]] bool parse_programme(std::string_view text, prepare_options& options,
                                   std::string& error)
{
    int64_t number = 0;
    if (!parse_number(text, 1, 65535, number)) {
        error = "--programme needs a number from 1 to 65535";
        return false;
    }
    options.programme = static_cast<uint16_t>(number);
    return true;
}

[[nodiscard]] bool parse_table_interval(std::string_view text, prepare_options& options,
                                        std::string& error)
{
    int64_t milliseconds = 0;
    if (!parse_number(text, 20, 10000, milliseconds)) {
        error = "--table-interval needs milliseconds from 20 to 10000";
        return false;
    }
    options.table_us = milliseconds * 1000;
    return true;
}

[[nodiscard]] bool parse_table_bytes(std::string_view text, prepare_options& options,
                                     std::string& error)
{
    int64_t bytes = 0;
    if (!parse_number(text, 10000, 100'000'000, bytes)) {
        error = "--table-bytes needs bytes from 10000 to 100000000";
        return false;
    }
    options.table_bytes = static_cast<uint64_t>(bytes);
    return true;
}

[[nodiscard]] bool parse_seconds(std::string_view text, double lowest, int64_t& us)
{
    constexpr double most_seconds = 86400;
    double seconds = 0;
    const char* const end = text.data() + text.size();
    const auto [last, failure] =
        std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    if (failure != std::errc{} || last != end || !(seconds >= lowest && seconds <= most_seconds))
        return false;
    us = std::llround(seconds * 1e6);
    return true;
}

[[nodiscard]] bool parse_linger(std::string_view text, prepare_options& options, std::string& error)
{
    if (parse_seconds(text, 0, options.linger_us))
        return true;
    error = "--linger needs seconds from 0 to 86400";
    return false;
}

[[nodiscard]] bool parse_stats(std::string_view text, prepare_options& options, std::string& error)
{
    if (parse_seconds(text, 0.1, options.stats_us))
        return true;
    error = "--stats needs seconds from 0.1 to 86400";
    return false;
}

[[nodiscard]] bool parse_frag_duration(std::string_view text, prepare_options& options,
                                       std::string& error)
{
    int64_t seconds = 0;
    if (!parse_number(text, 1, 20, seconds)) {
        error = "--frag-duration needs seconds from 1 to 20";
        return false;
    }
    options.frag_duration = static_cast<int>(seconds);
    return true;
}

[[nodiscard]] bool take_option(int option, prepare_options& options, std::string& error)
{
    const std::string_view value = optarg != nullptr ? optarg : "";
    switch (option) {
    case 'p':
        return parse_pad_to(value, options, error);
    case 'n':
        return parse_programme(value, options, error);
    case 'd':
        options.drop_service_information = true;
        return true;
    case 'i':
        return parse_table_interval(value, options, error);
    case 'b':
        return parse_table_bytes(value, options, error);
    case 'k':
        options.keep_time = true;
        return true;
    case 'l':
        return parse_linger(value, options, error);
    case 's':
        return parse_stats(value, options, error);
    case 'D':
        options.describe = true;
        return true;
    case 'j':
        options.json = true;
        return true;
    case 'f':
        return parse_frag_duration(value, options, error);
    case 'h':
        options.help = true;
        return true;
    default:
        error = "an option is unknown or lacks its value";
        return false;
    }
}

} // namespace

bool parse_prepare_options(int argc, char* const argv[], prepare_options& options,
                           std::string& error)
{
    const option long_options[] = {
        {"pad-to", required_argument, nullptr, 'p'},
        {"programme", required_argument, nullptr, 'n'},
        {"service-id", required_argument, nullptr, 'n'},
        {"drop-si", no_argument, nullptr, 'd'},
        {"table-interval", required_argument, nullptr, 'i'},
        {"table-bytes", required_argument, nullptr, 'b'},
        {"keep-time", no_argument, nullptr, 'k'},
        {"linger", required_argument, nullptr, 'l'},
        {"stats", required_argument, nullptr, 's'},
        {"describe", no_argument, nullptr, 'D'},
        {"json", no_argument, nullptr, 'j'},
        {"frag-duration", required_argument, nullptr, 'f'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    optind = 0; // begin anew, also when a test parses a second command line
    opterr = 0;
    for (;;) {
        const int word = std::max(optind, 1);
        const int found = getopt_long(argc, argv, "+", long_options, nullptr);
        if (found == -1)
            break;
        if (!take_option(found, options, error)) {
            if (found == '?')
                error = "'" + std::string(argv[word]) + "' is unknown or lacks its value";
            return false;
        }
    }
    if (options.help)
        return true;
    if (optind < argc)
        error = "'" + std::string(argv[optind]) + "' is no option";
    else if (options.drop_service_information && !options.programme)
        error = "--drop-si needs --programme";
    else if (options.json && !options.describe)
        error = "--json needs --describe";
    return error.empty();
}
