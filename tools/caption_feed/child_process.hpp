// The processes that vorn_caption_feed starts. Both kinds start with no signal blocked.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// Statuses of a command that could not be executed, as shells give them.
constexpr int status_feed_failed = 125;
constexpr int status_not_executable = 126;
constexpr int status_not_found = 127;

// Runs "sh -c command" in a process group of its own, with standard output on `output` and nothing
// on standard input. Negative, with errno, when no process can be made.
[[nodiscard]] pid_t start_shell_command(const std::string& command, int output);

// Runs the program with "--anon-sock" and the number of `control_socket` in front of its other
// arguments; it inherits that descriptor. Its standard input is `input`, or that of this process
// where `input` is negative. A program that cannot be executed is reported on standard error and
// ends with status_not_executable or status_not_found. Negative, with errno, when no process can be
// made.
[[nodiscard]] pid_t start_receiver(const std::vector<std::string>& command, int control_socket,
                                   int input);

// The exit status, or 128 and the number of the signal that ended the process.
int shell_status(int wait_status);
