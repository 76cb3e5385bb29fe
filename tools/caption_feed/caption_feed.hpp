// The feeder at work: one poll loop that reads the sources, sends what is due and passes signals
// on, without ever waiting for any one of them.
#pragma once

#include "tools/caption_feed/options.hpp"

// Starts the command and feeds it until it ends. Returns the exit status for the whole.
[[nodiscard]] int run_caption_feed(const feed_options& options);
