#include "tests/support/program_run.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using steady = std::chrono::steady_clock;

// No run of a test takes a tenth of this, even under sanitizers.
constexpr auto deadline = std::chrono::seconds(120);

constexpr auto read_and_enter =
    std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec |
    std::filesystem::perms::others_read | std::filesystem::perms::others_exec;

constexpr size_t datagram_bytes = size_t{7} * 188;

constexpr uid_t nobody = 65534;

class descriptor
{
public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor() { close(); }
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept
    {
        close();
        fd_ = std::exchange(other.fd_, -1);
        return *this;
    }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool open() const { return fd_ >= 0; }
    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

int checked(int result, const char* what)
{
    if (result < 0)
        throw std::runtime_error(std::string(what) + " failed");
    return result;
}

struct pipe_ends {
    descriptor read;
    descriptor write;
};

pipe_ends make_pipe()
{
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    return {descriptor(ends[0]), descriptor(ends[1])};
}

descriptor memory_file(const byte_string& bytes)
{
    descriptor file(checked(memfd_create("input", MFD_CLOEXEC), "memfd_create"));
    for (size_t done = 0; done < bytes.size();)
        done += static_cast<size_t>(
            checked(static_cast<int>(write(file.get(), bytes.data() + done,
                                           std::min(bytes.size() - done, size_t{1} << 30))),
                    "write"));
    checked(static_cast<int>(lseek(file.get(), 0, SEEK_SET)), "lseek");
    return file;
}

// The program's end of standard input, and ours where there is one.
struct input_ends {
    descriptor child;
    descriptor ours;
};

input_ends open_input(const program_input& input)
{
    switch (input.from) {
    case program_input::source::file:
        return {memory_file(input.bytes), descriptor()};
    case program_input::source::pipe:
    case program_input::source::pieces: {
        // With O_DIRECT each write(2) of up to PIPE_BUF bytes is a packet that is read on its own.
        const int mode = input.from == program_input::source::pieces ? O_DIRECT : 0;
        pipe_ends ends = make_pipe();
        checked(fcntl(ends.write.get(), F_SETFL, O_NONBLOCK | mode), "fcntl");
        return {std::move(ends.read), std::move(ends.write)};
    }
    case program_input::source::datagrams: {
        std::array<int, 2> ends{};
        // Unlike datagrams without a connection, these have an end.
        checked(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()),
                "socketpair");
        checked(fcntl(ends[1], F_SETFL, 0), "fcntl"); // the program's end blocks
        return {descriptor(ends[1]), descriptor(ends[0])};
    }
    case program_input::source::terminal: {
        int ours = -1;
        int child = -1;
        checked(openpty(&ours, &child, nullptr, nullptr, nullptr), "openpty");
        return {descriptor(child), descriptor(ours)};
    }
    case program_input::source::closed:
        break;
    }
    return {descriptor(), descriptor()};
}

// Feeds a pipe or a socket as far as it takes bytes.
class input_feeder
{
public:
    input_feeder(const program_input& input, const std::filesystem::path& directory, descriptor& fd)
        : input_(input), directory_(directory), fd_(fd)
    {
        piece_ = input.bytes;
        if (input.from == program_input::source::datagrams)
            longest_write_ = datagram_bytes;
    }

    void feed()
    {
        while (fd_.open()) {
            if (done_ == piece_.size()) {
                piece_.clear();
                done_ = 0;
                if (!input_.next || !input_.next(piece_, directory_)) {
                    fd_.close();
                    return;
                }
                continue;
            }
            const size_t length = std::min(piece_.size() - done_, longest_write_);
            const ssize_t count = write(fd_.get(), piece_.data() + done_, length);
            if (count < 0 && errno == EAGAIN)
                return;
            if (count < 0) {
                fd_.close(); // the program reads no more
                return;
            }
            done_ += static_cast<size_t>(count);
        }
    }

private:
    const program_input& input_;
    const std::filesystem::path& directory_;
    descriptor& fd_;
    byte_string piece_;
    size_t done_ = 0;
    size_t longest_write_ = SIZE_MAX;
};

// Appends what can be read; closes the descriptor at its end.
void collect(descriptor& fd, std::string& text)
{
    std::array<char, 65536> buffer{};
    const ssize_t count = read(fd.get(), buffer.data(), buffer.size());
    if (count > 0)
        text.append(buffer.data(), static_cast<size_t>(count));
    else
        fd.close();
}

[[noreturn]] void become_program(const program_run& run, const char* directory, char** argv,
                                 int input, int output, int error)
{
    // Descriptors above 2 are closed on exec.
    if (chdir(directory) != 0 || dup2(output, 1) < 0 || dup2(error, 2) < 0)
        _exit(126);
    if (input < 0)
        close(0);
    else if (dup2(input, 0) < 0)
        _exit(126);

    // Permissions do not bind the superuser.
    if (run.read_only_directory && geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0))
        _exit(126);
    signal(SIGPIPE, SIG_DFL);
    if (run.file_size_limit) {
        signal(SIGXFSZ, SIG_IGN); // write(2) then reports EFBIG
        const rlimit limit{*run.file_size_limit, *run.file_size_limit};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            _exit(126);
    }
    if (run.before_start && !run.before_start())
        _exit(125);
    execv(argv[0], argv);
    _exit(127);
}

struct child_process {
    pid_t pid = -1;
    descriptor input; // ours, to feed
    descriptor output;
    descriptor error;
};

child_process start(const program_run& run, const std::string& directory)
{
    std::vector<std::string> arguments = {VORN_PROGRAM};
    arguments.insert(arguments.end(), run.arguments.begin(), run.arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    input_ends input = open_input(run.input);
    pipe_ends output = make_pipe();
    pipe_ends error = make_pipe();
    const pid_t pid = checked(fork(), "fork");
    if (pid == 0)
        become_program(run, directory.c_str(), argv.data(), input.child.get(), output.write.get(),
                       error.write.get());
    return {pid, std::move(input.ours), std::move(output.read), std::move(error.read)};
}

// Serves all three streams until the program has closed its outputs. False at the deadline.
bool serve(child_process& child, const program_run& run, const std::filesystem::path& directory,
           run_result& result)
{
    const bool feeding = run.input.from == program_input::source::pipe ||
                         run.input.from == program_input::source::pieces ||
                         run.input.from == program_input::source::datagrams;
    input_feeder feeder(run.input, directory, child.input);
    const auto give_up = steady::now() + deadline;
    while (child.output.open() || child.error.open()) {
        std::array<pollfd, 3> fds{pollfd{child.output.get(), POLLIN, 0},
                                  pollfd{child.error.get(), POLLIN, 0},
                                  pollfd{feeding ? child.input.get() : -1, POLLOUT, 0}};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(give_up - steady::now());
        if (left.count() <= 0 || poll(fds.data(), fds.size(), static_cast<int>(left.count())) == 0)
            return false;
        if (fds[0].revents != 0)
            collect(child.output, result.standard_output);
        if (fds[1].revents != 0)
            collect(child.error, result.standard_error);
        if (fds[2].revents != 0)
            feeder.feed();
    }
    return true;
}

std::string ending_of(pid_t pid, bool in_time, long& peak_kilobytes)
{
    if (!in_time)
        kill(pid, SIGKILL);
    int status = 0;
    rusage usage{};
    checked(wait4(pid, &status, 0, &usage), "wait4");
    peak_kilobytes = usage.ru_maxrss;
    if (!in_time)
        return "killed by the deadline";
    if (WIFSIGNALED(status))
        return "signal " + std::to_string(WTERMSIG(status));
    return "exit " + std::to_string(WEXITSTATUS(status));
}

} // namespace

run_result run_program(const program_run& run)
{
    signal(SIGPIPE, SIG_IGN); // a program that stops reading must not end the tests

    const scratch_directory scratch;
    scratch.add(run.files);
    if (run.read_only_directory)
        std::filesystem::permissions(scratch.path(), read_and_enter);

    run_result result;
    child_process child =
        start(run, run.directory.empty() ? scratch.path().string() : run.directory);
    const bool in_time = serve(child, run, scratch.path(), result);
    result.ending = ending_of(child.pid, in_time, result.peak_kilobytes);
    std::filesystem::permissions(scratch.path(), std::filesystem::perms::owner_all);
    result.files = scratch.files();
    return result;
}

run_result run_on(const byte_string& stream, std::vector<std::string> arguments)
{
    return run_program({.arguments = std::move(arguments), .input = {.bytes = stream}});
}
