// Reads the beginning of the stream on standard input and says on standard output what is in it.
#pragma once

#include "tools/ts_prepare/options.hpp"

// Returns the exit status.
int run_describe(const prepare_options& options);
