// vorn_ts_prepare between its descriptors: reads, waits, writes and fills up.
#pragma once

#include "tools/ts_prepare/options.hpp"

constexpr int status_unusable = 1; // command line or standard streams
constexpr int status_failed = 2;   // reading or writing

// Prepares standard input for standard output until the input ends. Returns the exit status.
int run_prepare(const prepare_options& options);
