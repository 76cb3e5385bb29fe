// The command line: arguments separated by NUL bytes.

#include <string>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "v2/options.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> arguments{"vorn_mpegts_to_hls", ""};
    for (const uint8_t byte : std::span(data, size)) {
        if (byte == 0)
            arguments.emplace_back();
        else
            arguments.back().push_back(static_cast<char>(byte));
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());

    cmdopts opts;
    if (!parse_options(opts, static_cast<int>(argv.size()), argv.data()))
        return 0;
    const bool ends_unchecked = arguments.back().ends_with("anon-sock");
    require(1 <= opts.frag_duration && opts.frag_duration <= 20);
    require(1 <= opts.frag_backlog && opts.frag_backlog <= 1000);
    require(ends_unchecked || opts.m3u8_name.find("..") == std::string::npos);
    require(ends_unchecked || opts.frag_name.find("..") == std::string::npos);
    return 0;
}
