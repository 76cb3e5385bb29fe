#include "tools/caption_feed/options.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include <getopt.h>

#include "tools/captions/teletext_decoder.hpp"

const char feed_usage[] =
    R"(usage: vorn_caption_feed --captions LANG=SOURCE ... [OPTION ...] [--] COMMAND [ARGUMENT ...]

Starts COMMAND, normally vorn_mpegts_to_hls, and sends it captions read from WebVTT
sources or out of the transport stream on standard input, which COMMAND gets unchanged.
"--anon-sock N", with N the number of the socket that carries the captions, is put in
front of its arguments.

  --captions LANG=SOURCE  captions in the language LANG (an ISO 639 code such as eng, or
                          a service tag such as v1), one source per language, from:
                            PATH       a file, or a FIFO, which may be closed and opened
                                       again by any number of writers; each has to end
                                       with an empty line
                            |COMMAND   the output of a shell command
                          or from the stream itself:
                            cc1 to cc4     closed captions of CEA-608
                            708:1 to 708:63
                                           caption services of CEA-708
                            teletext:PAGE  subtitles of the teletext page 100 to 8FF
  --captions auto         all caption services and subtitle pages that the stream's tables
                          announce, in their languages
  --base-time TICKS       the presentation time at which the stream begins, in ticks of
                          90 kHz. It is the time 0 of sources without X-TIMESTAMP-MAP,
                          and the time from which --pace realtime counts. Default: 0,
                          and time is counted from 0 of the source.
  --pace realtime         send a cue when its time comes. The clock starts when COMMAND
                          begins to work on the stream, which is expected to arrive as
                          fast as it plays.
  --pace none             send a cue as soon as it has been read: for live sources,
                          which keep time themselves.
  --pace auto             realtime for regular files, none for everything else (default)
  --lead SECONDS          with realtime, send a cue this much before its time; may be
                          negative. Default: 1
  --help                  print this text

A cue belongs to the fragment that is being written when it arrives, and COMMAND keeps no
more than 128 that wait. So that none is lost once it writes fragments, each language
sends at most 64 cues at once and 10 a second after them, whatever the pace; sources are
read no faster than that.

A cue that cannot be used is reported with its source and line, and skipped.

The exit status is that of COMMAND, or 128 and the number of the signal that ended it;
125 when vorn_caption_feed itself fails, 126 when COMMAND cannot be executed, 127 when it
is not found. SIGTERM, SIGINT and SIGHUP are passed on to COMMAND.
)";

namespace
{

constexpr size_t most_language_bytes = 35;

// The language becomes part of file names.
bool is_language(std::string_view text)
{
    constexpr std::string_view allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-";
    return !text.empty() && text.size() <= most_language_bytes &&
           text.find_first_not_of(allowed) == std::string_view::npos;
}

bool has_language(const feed_options& options, const std::string& language)
{
    return std::ranges::count(options.captions, language, &caption_option::language) != 0 ||
           std::ranges::count(options.services, language, &caption_service::language) != 0;
}

[[nodiscard]] bool add_captions(std::string_view value, feed_options& options, std::string& error)
{
    if (value == "auto") {
        options.all_services = true;
        return true;
    }
    const size_t equals = value.find('=');
    if (equals == std::string_view::npos || value.substr(equals + 1).empty() ||
        value.substr(equals + 1) == "|") {
        error = "--captions needs LANG=SOURCE, or auto";
        return false;
    }
    const std::string language(value.substr(0, equals));
    if (!is_language(language)) {
        error = "--captions: '" + language + "' is no language (letters, digits and '-')";
        return false;
    }
    if (has_language(options, language)) {
        error = "--captions: a second source for '" + language + "'";
        return false;
    }
    if (options.captions.size() + options.services.size() == most_languages) {
        error = "--captions: more than 256 languages";
        return false;
    }
    caption_service service{.language = language};
    const bool is_service = parse_caption_service(value.substr(equals + 1), service);
    if (is_service && service.kind == caption_kind::teletext && !teletext_is_built_in) {
        error = "--captions: this program was built without libzvbi, which reads teletext";
        return false;
    }
    if (is_service)
        options.services.push_back(service);
    else
        options.captions.push_back(
            {.language = language, .source = std::string(value.substr(equals + 1))});
    return true;
}

[[nodiscard]] bool parse_base_time(std::string_view value, feed_options& options,
                                   std::string& error)
{
    uint64_t ticks = 0;
    const char* const end = value.data() + value.size();
    const auto [last, failure] = std::from_chars(value.data(), end, ticks);
    if (failure != std::errc{} || last != end) {
        error = "--base-time needs a number of ticks, 0 or more";
        return false;
    }
    options.base_ticks = ticks;
    return true;
}

[[nodiscard]] bool parse_pace(std::string_view value, feed_options& options, std::string& error)
{
    if (value == "auto")
        options.pace = feed_pace::automatic;
    else if (value == "realtime")
        options.pace = feed_pace::realtime;
    else if (value == "none")
        options.pace = feed_pace::none;
    else {
        error = "--pace needs auto, realtime or none";
        return false;
    }
    return true;
}

[[nodiscard]] bool parse_lead(std::string_view value, feed_options& options, std::string& error)
{
    constexpr double most_seconds = 86400;
    double seconds = 0;
    const char* const end = value.data() + value.size();
    const auto [last, failure] =
        std::from_chars(value.data(), end, seconds, std::chars_format::fixed);
    if (failure != std::errc{} || last != end || !(std::abs(seconds) <= most_seconds)) {
        error = "--lead needs seconds, at most a day";
        return false;
    }
    options.lead_ms = std::llround(seconds * 1000);
    return true;
}

[[nodiscard]] bool take_option(int option, feed_options& options, std::string& error)
{
    const std::string_view value = optarg != nullptr ? optarg : "";
    switch (option) {
    case 'c':
        return add_captions(value, options, error);
    case 'b':
        return parse_base_time(value, options, error);
    case 'p':
        return parse_pace(value, options, error);
    case 'l':
        return parse_lead(value, options, error);
    case 'h':
        options.help = true;
        return true;
    default:
        error = "an option is unknown or lacks its value";
        return false;
    }
}

} // namespace

bool parse_feed_options(int argc, char* const argv[], feed_options& options, std::string& error)
{
    const option long_options[] = {
        {"captions", required_argument, nullptr, 'c'},
        {"base-time", required_argument, nullptr, 'b'},
        {"pace", required_argument, nullptr, 'p'},
        {"lead", required_argument, nullptr, 'l'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    optind = 0; // begin anew, also when a test parses a second command line
    opterr = 0;

    // "+": the first word that is no option begins the command, whose options are its own.
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

    options.command.assign(argv + optind, argv + argc);
    if (options.captions.empty() && options.services.empty() && !options.all_services)
        error = "no captions are given";
    else if (options.command.empty())
        error = "no command is given";
    return error.empty();
}
