#include "v2/options.hpp"

#include <cstdio>
#include <cstdlib>
#include <string_view>

int32_t anon_sock_fd = -1;

namespace
{

void print_usage()
{
    std::fprintf(
        stderr,
        "vorn_mpegts_to_hls [options]\n"
        "MPEG-TS to HLS conversion utility. Version " VORN_VERSION "\n"
        " --frag-duration <n>              HLS fragment duration in seconds\n"
        " --frag-backlog <n>               How many fragments to keep before discarding at any time\n"
        " --frag-name <name>               HLS fragment name base (name_%%d.ts)\n"
        " --m3u8-name <name>               M3U8 file name\n"
        " --base-url <url>                 Base URL to append to fragments in M3U8\n"
        " --clear-old                      Clear previous M3U8 and HLS fragments before starting\n"
        " --clear-old-only                 Same as --clear-old, but exit after clearing\n"
        " --no-padding                     Omit padding packets (variable-bitrate MPEG-TS)\n"
        " --start-pat-pmt                  Filter PAT/PMT and place at HLS fragment start\n"
        " --pat-nit-not-first              Filter PAT table, make sure NIT cannot be first\n"
        " --no-multilevel                  Keep M3U8 at one level (this disables VTT subtitles)\n"
        " --separate-streams               Write audio and video to separate streams\n"
        " --sap                            Write secondary audio\n");
}

// The arguments not yet used up.
struct argument_list {
    int left;
    char** next;

    const char* take()
    {
        left--;
        return *next++;
    }
};

bool take_text(argument_list& args, std::string& value)
{
    if (args.left == 0)
        return false;
    value = args.take();
    return true;
}

// As strtol reads it: trailing characters are ignored, no digits give 0; cut to 32 bits.
bool take_integer(argument_list& args, int32_t& value)
{
    if (args.left == 0)
        return false;
    value = static_cast<int32_t>(std::strtol(args.take(), nullptr, 10));
    return true;
}

bool in_range(int32_t value, int32_t lowest, int32_t highest)
{
    return lowest <= value && value <= highest;
}

// True if the name was one of the switches without a value.
bool set_flag(cmdopts& opts, std::string_view name)
{
    if (name == "sap")
        opts.sap = true;
    else if (name == "separate-streams")
        opts.separate_streams = true;
    else if (name == "no-multilevel")
        opts.no_multilevel = true;
    else if (name == "pat-nit-not-first")
        opts.pat_nit_not_first = true;
    else if (name == "start-pat-pmt")
        opts.start_pat_pmt = true;
    else if (name == "no-padding")
        opts.no_padding = true;
    else if (name == "clear-old")
        opts.clear_old = true;
    else if (name == "clear-old-only")
        opts.clear_old = opts.clear_old_only = true;
    else
        return false;
    return true;
}

enum class parse_result { ok, failed, end_unchecked };

parse_result parse_option(cmdopts& opts, const char* name_text, argument_list& args)
{
    const std::string_view name = name_text;
    bool ok = true;
    if (name == "help" || name == "h") {
        print_usage();
        ok = false;
    } else if (name == "base-url") {
        ok = take_text(args, opts.base_url);
    } else if (name == "m3u8-name") {
        ok = take_text(args, opts.m3u8_name);
    } else if (name == "frag-name") {
        ok = take_text(args, opts.frag_name);
    } else if (name == "frag-backlog") {
        ok = take_integer(args, opts.frag_backlog) && in_range(opts.frag_backlog, 1, 1000);
    } else if (name == "frag-duration") {
        ok = take_integer(args, opts.frag_duration) && in_range(opts.frag_duration, 1, 20);
    } else if (name == "anon-sock") {
        // Without its value it ends the command line well, and unchecked, on purpose.
        if (!take_integer(args, anon_sock_fd))
            return parse_result::end_unchecked;
    } else if (!set_flag(opts, name)) {
        std::fprintf(stderr, "Unknown switch '%s'\n", name_text);
        ok = false;
    }
    return ok ? parse_result::ok : parse_result::failed;
}

// Names are relative to the working directory and must not lead out of it.
bool acceptable_name(std::string_view name)
{
    return !name.empty() && name.front() != '/' && name.back() != '/' &&
           name.find("..") == std::string_view::npos;
}

void apply_implied_options(cmdopts& opts)
{
    if (!opts.separate_streams)
        return;
    if (opts.no_multilevel) {
        std::fprintf(stderr, "Separate streams AND no multilevel are incompatible options!\n");
        opts.no_multilevel = false;
    }
    if (!opts.start_pat_pmt) {
        std::fprintf(stderr, "Separate streams REQUIRES --start-pat-pmt option\n");
        opts.start_pat_pmt = true;
    }
}

} // namespace

bool parse_options(cmdopts& opts, int argc, char** argv)
{
    argument_list args{.left = argc > 1 ? argc - 1 : 0, .next = argv + 1};
    while (args.left > 0) {
        const char* arg = args.take();
        if (*arg != '-') {
            std::fprintf(stderr, "Unexpected arg\n");
            return false;
        }
        while (*arg == '-')
            arg++;

        switch (parse_option(opts, arg, args)) {
        case parse_result::ok:
            break;
        case parse_result::failed:
            return false;
        case parse_result::end_unchecked:
            return true;
        }
    }

    if (!acceptable_name(opts.frag_name) || !acceptable_name(opts.m3u8_name))
        return false;
    if (!opts.base_url.empty() && opts.base_url.back() != '/')
        return false;

    apply_implied_options(opts);
    return true;
}
