// The command line: parsing, implied options, and the names that could escape the working
// directory.
#pragma once

#include <cstdint>

#include "v2/base/cmdopts.hpp"

// The control socket's descriptor given by --anon-sock; negative: none. It is process-wide because
// it is a handle inherited from the parent and no setting of the run.
extern int32_t anon_sock_fd;

// Fills `opts`, which holds the defaults, and `anon_sock_fd`. True to run; false to end with
// status 1. Help, unexpected arguments and unknown switches are reported on standard error; numbers
// out of range, missing values and rejected names fail silently.
[[nodiscard]] bool parse_options(cmdopts& opts, int argc, char** argv);
