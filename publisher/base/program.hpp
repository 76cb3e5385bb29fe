// What the publisher's programs do alike around what they are for.
#pragma once

#include <initializer_list>

#include "publisher/base/descriptor.hpp"

constexpr int status_failed = 1;

// The descriptor is readable when one of these signals has come, which end nothing from now on.
descriptor take_signals(std::initializer_list<int> numbers);

// Runs what main() is about. An exception, as for want of memory, is told and ends it with
// status_failed.
int run_guarded(const char* name, int (*run)(int, char**), int argc, char** argv);
