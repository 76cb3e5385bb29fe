// Runs the real program in a fresh directory and collects all that it leaves: exit status or
// signal, both output streams, and every file. A run that hangs is killed and reported. The program
// inherits the test's descriptors that are not closed on exec.
#pragma once

#include <functional>
#include <optional>

#include "tests/support/scratch_directory.hpp"

// What the program's standard input is.
struct program_input {
    enum class source {
        file,      // a regular file of `bytes`
        pipe,      // a pipe that delivers `bytes`, then all of `next`
        pieces,    // the same, but one read(2) takes no more than 4096 of `bytes` or one piece of
                   // `next`, which must not be longer
        datagrams, // a socket that delivers them in datagrams of seven packets
        terminal,  // a pseudo terminal
        closed,    // no open descriptor
    };
    source from = source::file;
    byte_string bytes = {};
    // The next piece of a stream too long to be held; false at its end. It is asked for when the
    // pipe has taken all before, and may look into the run's directory.
    std::function<bool(byte_string& piece, const std::filesystem::path& directory)> next = {};
};

struct program_run {
    std::vector<std::string> arguments = {};
    program_input input = {};
    file_map files = {};        // already there when the program starts
    std::string directory = {}; // working directory, when not the scratch directory
    std::optional<uint64_t> file_size_limit = {}; // bytes: larger writes fail, as on a full disk
    bool read_only_directory = false; // nothing can be made or removed in the scratch directory
    std::function<bool()> before_start = {}; // in the new process, last; false: it ends with 125
};

struct run_result {
    std::string ending = {}; // "exit 0", "signal 6", "killed by the deadline"
    std::string standard_output = {};
    std::string standard_error = {};
    file_map files = {};
    long peak_kilobytes = 0; // of memory; at least what the test itself had when it forked
};

run_result run_program(const program_run& run);

// As run_program with the bytes on standard input, as a file.
run_result run_on(const byte_string& stream, std::vector<std::string> arguments = {});
