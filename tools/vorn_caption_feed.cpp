// vorn_caption_feed: starts vorn_mpegts_to_hls with a control socket and feeds it captions from
// WebVTT sources.

#include <cstdio>
#include <string>

#include "tools/caption_feed/caption_feed.hpp"
#include "tools/caption_feed/child_process.hpp"
#include "tools/caption_feed/options.hpp"

int main(int argc, char* argv[])
{
    feed_options options;
    std::string error;
    if (!parse_feed_options(argc, argv, options, error)) {
        fprintf(stderr, "vorn_caption_feed: %s\nTry 'vorn_caption_feed --help'.\n", error.c_str());
        return status_feed_failed;
    }
    if (options.help) {
        fputs(feed_usage, stdout);
        return 0;
    }
    return run_caption_feed(options);
}
