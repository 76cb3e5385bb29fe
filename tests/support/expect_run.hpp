// Compares all that a run left with what is expected, and says readably where they differ.
#pragma once

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/program_run.hpp"

struct expected_run {
    std::string ending = "exit 0";
    std::string standard_error = {};
    file_map files = {};
};

// Every file, standard error and standard output (which must stay empty) are compared whole.
testing::AssertionResult same_run(const run_result& got, const expected_run& want);

testing::AssertionResult same_files(const file_map& got, const file_map& want);
