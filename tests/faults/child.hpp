// The program as a child whose standard input the test writes to, byte for byte as it likes, and
// which it may end at any moment.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/support/bytes.hpp"

class child
{
public:
    // Starts it in `directory`; its messages go to /dev/null. Its input is a pipe that holds
    // `pipe_bytes`: so far it can be behind what it was fed.
    child(const std::string& program, std::vector<std::string> arguments,
          const std::string& directory, size_t pipe_bytes);
    ~child(); // ends it suddenly, if it still runs
    child(const child&) = delete;
    child& operator=(const child&) = delete;

    // Hands all bytes over; false if it reads no more.
    bool feed(std::span<const uint8_t> bytes) const;

    void stop() const; // SIGSTOP, and waits until it stands still
    void resume() const;

    void kill();  // SIGKILL, and waits
    int finish(); // ends its input and waits: the exit status, or -1 for a signal

    [[nodiscard]] pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int input_ = -1;
};
