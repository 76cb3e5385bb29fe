#include "publisher/base/program.hpp"

#include <csignal>
#include <cstdio>
#include <exception>
#include <tuple>

#include <sys/signalfd.h>

descriptor take_signals(std::initializer_list<int> numbers)
{
    // A lease of a source's file may be broken: it was only asked for.
    std::ignore = std::signal(SIGIO, SIG_IGN);
    std::ignore = std::signal(SIGPIPE, SIG_IGN);
    std::ignore = std::signal(SIGXFSZ, SIG_IGN); // a limit is an error like a full disk
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return descriptor(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
}

int run_guarded(const char* name, int (*run)(int, char**), int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return status_failed;
    }
}
