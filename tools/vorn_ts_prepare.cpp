// vorn_ts_prepare: makes a live transport stream fit for vorn_mpegts_to_hls.

#include <cstdio>
#include <string>

#include <unistd.h>

#include "tools/ts_prepare/describe_loop.hpp"
#include "tools/ts_prepare/options.hpp"
#include "tools/ts_prepare/prepare_loop.hpp"

int main(int argc, char* argv[])
{
    prepare_options options;
    std::string error;
    if (!parse_prepare_options(argc, argv, options, error)) {
        fprintf(stderr, "vorn_ts_prepare: %s\nTry 'vorn_ts_prepare --help'.\n", error.c_str());
        return status_unusable;
    }
    if (options.help) {
        fputs(prepare_usage, stdout);
        return 0;
    }
    if (isatty(STDIN_FILENO) != 0) {
        fprintf(stderr, "vorn_ts_prepare: standard input is a terminal, not a stream\n");
        return status_unusable;
    }
    if (options.describe)
        return run_describe(options);
    if (isatty(STDOUT_FILENO) != 0) {
        fprintf(stderr, "vorn_ts_prepare: standard output is a terminal, which takes no stream\n");
        return status_unusable;
    }
    return run_prepare(options);
}
