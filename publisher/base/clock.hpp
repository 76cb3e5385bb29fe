// The clocks of the machine.
#pragma once

#include <cstdint>
#include <string>

// Milliseconds since the machine started, sleep included: it is never set.
int64_t boot_ms();

// Milliseconds since 1970: may be set, also back.
int64_t unix_ms();

// Names the boot that boot_ms() counts from.
std::string boot_id();
