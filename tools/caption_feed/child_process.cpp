#include "tools/caption_feed/child_process.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <tuple>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "toolkit/comm/comm_sender.hpp"

namespace
{

void unblock_all_signals()
{
    sigset_t none;
    sigemptyset(&none);
    std::ignore = sigprocmask(SIG_SETMASK, &none, nullptr); // fails only for a wrong argument
}

std::vector<char*> argument_pointers(std::vector<std::string>& arguments)
{
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

pid_t start_shell_command(const std::string& command, int output)
{
    const pid_t pid = fork();
    if (pid > 0)
        std::ignore = setpgid(pid, pid); // both do it, since either may run first
    if (pid != 0)
        return pid;

    std::ignore = setpgid(0, 0);
    unblock_all_signals();
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing >= 0 && dup2(nothing, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0)
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(status_not_found);
}

pid_t start_receiver(const std::vector<std::string>& command, int control_socket, int input)
{
    std::vector<std::string> arguments = command;
    arguments.insert(arguments.begin() + 1, {"--anon-sock", std::to_string(control_socket)});
    const std::vector<char*> pointers = argument_pointers(arguments);

    const pid_t pid = fork();
    if (pid != 0)
        return pid;

    unblock_all_signals();
    if ((input < 0 || dup2(input, STDIN_FILENO) >= 0) && comm_keep_across_exec(control_socket))
        execvp(pointers[0], pointers.data());
    const int error = errno;
    fprintf(stderr, "vorn_caption_feed: cannot execute '%s': %s\n", command[0].c_str(),
            std::strerror(error));
    _exit(error == ENOENT ? status_not_found : status_not_executable);
}

int shell_status(int wait_status)
{
    return WIFSIGNALED(wait_status) ? 128 + WTERMSIG(wait_status) : WEXITSTATUS(wait_status);
}
