#include "tests/faults/child.hpp"

#include <csignal>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

[[noreturn]] void become(char** argv, const char* directory, int input)
{
    const int nowhere = open("/dev/null", O_WRONLY);
    if (chdir(directory) == 0 && dup2(input, 0) == 0 && dup2(nowhere, 1) == 1 &&
        dup2(nowhere, 2) == 2) {
        close_range(3, ~0U, 0); // those of whoever started the test would be counted with its own
        execv(argv[0], argv);
    }
    _exit(127);
}

} // namespace

child::child(const std::string& program, std::vector<std::string> arguments,
             const std::string& directory, size_t pipe_bytes)
{
    signal(SIGPIPE, SIG_IGN);
    arguments.insert(arguments.begin(), std::filesystem::absolute(program));
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2 failed");
    if (fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(pipe_bytes)) < 0)
        throw std::runtime_error("no pipe of that size");
    pid_ = fork();
    if (pid_ == 0)
        become(argv.data(), directory.c_str(), ends[0]);
    close(ends[0]);
    input_ = ends[1];
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
}

child::~child()
{
    if (pid_ > 0)
        kill();
}

bool child::feed(std::span<const uint8_t> bytes) const
{
    while (!bytes.empty()) {
        const ssize_t count = write(input_, bytes.data(), bytes.size());
        if (count < 0)
            return false;
        bytes = bytes.subspan(static_cast<size_t>(count));
    }
    return true;
}

void child::stop() const
{
    ::kill(pid_, SIGSTOP);
    siginfo_t ignored;
    // Left to be waited for again: it may have ended, and finish() tells how.
    waitid(P_PID, static_cast<id_t>(pid_), &ignored, WSTOPPED | WEXITED | WNOWAIT);
}

void child::resume() const
{
    ::kill(pid_, SIGCONT);
}

void child::kill()
{
    ::kill(pid_, SIGKILL);
    finish();
}

int child::finish()
{
    close(input_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
