#include "v2/options.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>
#include <variant>

int32_t anon_sock_fd = -1;

namespace
{

// Names are relative to the working directory and must not lead out of it.
bool is_file_name(std::string_view text)
{
    return !text.empty() && text.front() != '/' && text.back() != '/' &&
           text.find("..") == std::string_view::npos;
}

bool is_base_url(std::string_view text)
{
    return text.empty() || text.back() == '/';
}

struct option {
    std::string_view name;
    std::string_view argument = {}; // in the usage text
    const char* help = "";
    std::variant<bool cmdopts::*, int32_t cmdopts::*, std::string cmdopts::*> member;
    int32_t lowest = 0; // of a number
    int32_t highest = 0;
    bool (*check)(std::string_view) = nullptr; // of a text, once all options are read
    bool cmdopts::*implied = nullptr;          // switched on as well
};

constexpr option options[] = {
    {.name = "frag-duration",
     .argument = "<n>",
     .help = "HLS fragment duration in seconds",
     .member = &cmdopts::frag_duration,
     .lowest = 1,
     .highest = 20},
    {.name = "frag-backlog",
     .argument = "<n>",
     .help = "How many fragments to keep before discarding at any time",
     .member = &cmdopts::frag_backlog,
     .lowest = 1,
     .highest = 1000},
    {.name = "frag-name",
     .argument = "<name>",
     .help = "HLS fragment name base (name_%d.ts)",
     .member = &cmdopts::frag_name,
     .check = is_file_name},
    {.name = "m3u8-name",
     .argument = "<name>",
     .help = "M3U8 file name",
     .member = &cmdopts::m3u8_name,
     .check = is_file_name},
    {.name = "base-url",
     .argument = "<url>",
     .help = "Base URL to append to fragments in M3U8",
     .member = &cmdopts::base_url,
     .check = is_base_url},
    {.name = "clear-old",
     .help = "Clear previous M3U8 and HLS fragments before starting",
     .member = &cmdopts::clear_old},
    {.name = "clear-old-only",
     .help = "Same as --clear-old, but exit after clearing",
     .member = &cmdopts::clear_old_only,
     .implied = &cmdopts::clear_old},
    {.name = "no-padding",
     .help = "Omit padding packets (variable-bitrate MPEG-TS)",
     .member = &cmdopts::no_padding},
    {.name = "start-pat-pmt",
     .help = "Filter PAT/PMT and place at HLS fragment start",
     .member = &cmdopts::start_pat_pmt},
    {.name = "pat-nit-not-first",
     .help = "Filter PAT table, make sure NIT cannot be first",
     .member = &cmdopts::pat_nit_not_first},
    {.name = "no-multilevel",
     .help = "Keep M3U8 at one level (this disables VTT subtitles)",
     .member = &cmdopts::no_multilevel},
    {.name = "separate-streams",
     .help = "Write audio and video to separate streams",
     .member = &cmdopts::separate_streams},
    {.name = "sap", .help = "Write secondary audio", .member = &cmdopts::sap},
};

void print_usage()
{
    std::fprintf(stderr, "vorn_mpegts_to_hls [options]\n"
                         "MPEG-TS to HLS conversion utility. Version " VORN_VERSION "\n");
    for (const option& opt : options) {
        const std::string shown = std::string(opt.name) + " " + std::string(opt.argument);
        std::fprintf(stderr, " --%-31s%s\n", shown.c_str(), opt.help);
    }
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

bool set_value(bool& flag, const option& /*opt*/, argument_list& /*args*/)
{
    flag = true;
    return true;
}

bool set_value(std::string& text, const option& /*opt*/, argument_list& args)
{
    if (args.left == 0)
        return false;
    text = args.take();
    return true;
}

// As strtol reads it: trailing characters are ignored, no digits give 0; cut to 32 bits.
int32_t integer_of(const char* text)
{
    return static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

bool set_value(int32_t& number, const option& opt, argument_list& args)
{
    if (args.left == 0)
        return false;
    number = integer_of(args.take());
    return opt.lowest <= number && number <= opt.highest;
}

bool parse_option(cmdopts& opts, const char* name, argument_list& args)
{
    const option* opt = std::ranges::find(options, name, &option::name);
    if (opt == std::end(options)) {
        std::fprintf(stderr, "Unknown switch '%s'\n", name);
        return false;
    }
    if (opt->implied != nullptr)
        opts.*opt->implied = true;
    return std::visit([&](auto member) { return set_value(opts.*member, *opt, args); },
                      opt->member);
}

bool texts_are_acceptable(const cmdopts& opts)
{
    return std::ranges::all_of(options, [&](const option& opt) {
        return opt.check == nullptr ||
               opt.check(opts.*std::get<std::string cmdopts::*>(opt.member));
    });
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

        const std::string_view name = arg;
        if (name == "help" || name == "h") {
            print_usage();
            return false;
        }
        if (name == "anon-sock") {
            if (args.left == 0)
                return true; // it ends the command line well, and unchecked, on purpose
            anon_sock_fd = integer_of(args.take());
        } else if (!parse_option(opts, arg, args)) {
            return false;
        }
    }

    if (!texts_are_acceptable(opts))
        return false;
    apply_implied_options(opts);
    return true;
}
