#include "tools/caption_feed/stream_road.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <system_error>
#include <tuple>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// All pipes of an ordinary user share 64 MiB. With less than this the road works all the same.
constexpr int wanted_pipe_bytes = 256 * 1024;
constexpr size_t most_at_once = 256 * 1024;
constexpr int longest_wait_for_reader_ms = 10'000;

// At the end the cues that wait are sent first, which takes 13 s where 128 of a track do.
constexpr int longest_wait_for_end_ms = 20'000;

// A burst of a live source may fill the copy's pipe before the reader has woken up. It is given
// this once for all that stands in the source; whatever comes meanwhile waits in there.
constexpr int longest_hold_up_ms = 20;

// A live source writes a few packets at a time, and to wake up for each costs more than to move
// them. So the road pauses until a batch is there: a part of what the pipe holds, so that the
// source is not held up.
constexpr size_t largest_batch_bytes = 48 * 1024;
constexpr int longest_pause_ms = 64;

void close_end(int& fd)
{
    if (fd >= 0)
        std::ignore = close(fd); // nothing waits in a pipe's end
    fd = -1;
}

// Makes a pipe larger, or leaves it as it is.
void enlarge(int pipe)
{
    if (fcntl(pipe, F_GETPIPE_SZ) < wanted_pipe_bytes)
        std::ignore = fcntl(pipe, F_SETPIPE_SZ, wanted_pipe_bytes); // or as much as it has
}

[[nodiscard]] bool make_pipe(int& read_end, int& write_end)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    read_end = ends[0];
    write_end = ends[1];
    enlarge(write_end);
    return true;
}

bool is_pipe(const struct stat& status)
{
    return S_ISFIFO(status.st_mode);
}

struct road_mover {
    stream_road& road;
    int source; // a pipe: standard input, or the joint behind it
    size_t batch_bytes = 0;
    int pause_ms = 1;
    bool was_held_up = false; // in this pass

    // False when the road is to end.
    bool wait(int fd, short events, int timeout_ms = -1) const
    {
        std::array<pollfd, 2> list = {pollfd{.fd = road.stop, .events = POLLIN, .revents = 0},
                                      pollfd{.fd = fd, .events = events, .revents = 0}};
        const int ready = poll(list.data(), list.size(), timeout_ms);
        return (ready >= 0 || errno == EINTR) && list[0].revents == 0;
    }

    bool copy_has_room() const
    {
        pollfd room{.fd = road.to_copy, .events = POLLOUT, .revents = 0};
        return poll(&room, 1, 0) == 1;
    }

    size_t bytes_in_source() const
    {
        int ready = 0;
        return ioctl(source, FIONREAD, &ready) == 0 ? static_cast<size_t>(ready) : 0;
    }

    void wake_reader() const;
    void wake_reader_if_worth_it() const;
    bool take_input();
    bool fill_joint();
    bool pass_on();
    bool move_to_program(size_t bytes);
    bool wait_for_reader();
    size_t tee_to_copy(size_t bytes);
    bool pause();
    void run();
};

// Splice cannot take from everything, a socket of datagrams for one; such input is read and
// written.
bool road_mover::fill_joint()
{
    while (road.can_splice_input) {
        const ssize_t got = splice(road.input, nullptr, road.joint[1], nullptr, most_at_once, 0);
        if (got >= 0)
            return got > 0;
        if (errno == EINVAL)
            road.can_splice_input = false;
        else if ((errno != EINTR && errno != EAGAIN) || !wait(road.input, POLLIN))
            return false;
    }
    std::array<char, 65536> bytes; // the joint is empty and has room for it
    ssize_t got = -1;
    while ((got = read(road.input, bytes.data(), bytes.size())) < 0) {
        if ((errno != EINTR && errno != EAGAIN) || !wait(road.input, POLLIN))
            return false;
    }
    return got > 0 && write(road.joint[1], bytes.data(), static_cast<size_t>(got)) == got;
}

// Waits until the source holds something. False at the end of the input.
bool road_mover::take_input()
{
    if (!wait(road.input, POLLIN))
        return false;
    if (road.kind != stream_road::input_kind::pipe)
        return fill_joint();
    return true;
}

void road_mover::wake_reader() const
{
    const uint64_t one = 1;
    std::ignore = write(road.copy_waits, &one, sizeof one); // fails only when it is awake already
}

void road_mover::wake_reader_if_worth_it() const
{
    int held = 0;
    if (road.to_copy >= 0 && ioctl(road.to_copy, FIONREAD, &held) == 0 &&
        static_cast<size_t>(held) >= road.copy_enough)
        wake_reader();
}

// Waits until the copy's pipe has room. A file comes as fast as it can, and no source is held up
// when it waits.
bool road_mover::wait_for_reader()
{
    const bool is_file = road.kind == stream_road::input_kind::file;
    if (!is_file && was_held_up)
        return false;
    was_held_up = true;
    return wait(road.to_copy, POLLOUT, is_file ? longest_wait_for_reader_ms : longest_hold_up_ms) &&
           copy_has_room();
}

// How much of what stands in the source the copy now has.
size_t road_mover::tee_to_copy(size_t bytes)
{
    while (road.to_copy >= 0 && !road.copy_has_gap) {
        const ssize_t copied = tee(source, road.to_copy, bytes, SPLICE_F_NONBLOCK);
        if (copied > 0)
            return static_cast<size_t>(copied);
        const int error = copied == 0 ? EPIPE : errno;
        if (error == EAGAIN) {
            wake_reader();
            road.copy_has_gap = !wait_for_reader();
        } else if (error != EINTR) {
            close_end(road.to_copy); // the reader has gone
        }
    }
    return bytes; // nothing is to be copied
}

bool road_mover::move_to_program(size_t bytes)
{
    while (bytes > 0) {
        const ssize_t moved =
            splice(source, nullptr, road.to_program, nullptr, bytes, SPLICE_F_NONBLOCK);
        const bool closed = moved == 0 || (moved < 0 && errno != EAGAIN && errno != EINTR);
        if (closed || (moved < 0 && !wait(road.to_program, POLLOUT)))
            return false;
        bytes -= static_cast<size_t>(std::max<ssize_t>(moved, 0));
    }
    return true;
}

// Moves all that stands in the source.
bool road_mover::pass_on()
{
    was_held_up = false;
    size_t left = bytes_in_source();
    if (left == 0 && road.kind == stream_road::input_kind::pipe)
        return false; // readable, and nothing there: the end
    while (left > 0) {
        const size_t bytes = tee_to_copy(std::min(left, most_at_once));
        if (!move_to_program(bytes))
            return false;
        left -= bytes;
    }
    wake_reader_if_worth_it();
    return true;
}

bool road_mover::pause()
{
    if (road.kind != stream_road::input_kind::pipe)
        return true;
    const size_t ready = bytes_in_source();
    if (ready >= batch_bytes)
        return true;
    if (!wait(-1, 0, pause_ms))
        return false;
    const size_t came = bytes_in_source();
    if (came < batch_bytes)
        pause_ms = std::min(2 * pause_ms, longest_pause_ms);
    else if (came >= 2 * batch_bytes)
        pause_ms = std::max(pause_ms / 2, 1);
    return true;
}

void road_mover::run()
{
    while (take_input() && pass_on() && pause()) {
    }
    if (road.to_copy >= 0) {
        close_end(road.to_copy);
        wake_reader();
        std::ignore = wait(-1, 0, longest_wait_for_end_ms);
    }
    close_end(road.to_program);
}

} // namespace

stream_road::~stream_road()
{
    if (thread.joinable()) {
        release_end();
        thread.join();
    }
    for (int* const fd :
         {&program_end, &copy_end, &copy_waits, &joint[0], &joint[1], &to_program, &to_copy, &stop})
        close_end(*fd);
}

bool stream_road::open(int from)
{
    struct stat status = {};
    input = from;
    if (fstat(input, &status) != 0)
        return false;
    if (!is_pipe(status))
        kind = S_ISREG(status.st_mode) ? input_kind::file : input_kind::other;
    else
        enlarge(input);
    stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    copy_waits = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stop < 0 || copy_waits < 0 || !make_pipe(program_end, to_program) ||
        !make_pipe(copy_end, to_copy) || fcntl(copy_end, F_SETFL, O_NONBLOCK) != 0)
        return false;
    // What comes from a socket fills a page with each datagram, be it ever so small.
    const auto capacity = static_cast<size_t>(std::max(fcntl(to_copy, F_GETPIPE_SZ), 0));
    copy_enough = capacity / (kind == input_kind::other ? 8 : 2);
    return kind == input_kind::pipe || make_pipe(joint[0], joint[1]);
}

bool stream_road::start()
{
    close_end(program_end);
    // A program that closes its input makes a signal of it, which the thread inherits blocked.
    sigset_t broken_pipe;
    sigset_t before;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    errno = pthread_sigmask(SIG_BLOCK, &broken_pipe, &before);
    if (errno != 0)
        return false;
    try {
        thread = std::thread([this] {
            const int source = kind == input_kind::pipe ? input : joint[0];
            const auto capacity = static_cast<size_t>(std::max(fcntl(source, F_GETPIPE_SZ), 0));
            const size_t batch = std::min(capacity / 4, largest_batch_bytes);
            road_mover{.road = *this, .source = source, .batch_bytes = batch}.run();
        });
    } catch (const std::system_error& error) {
        errno = error.code().value();
    }
    std::ignore = pthread_sigmask(SIG_SETMASK, &before, nullptr); // fails only for a wrong argument
    return thread.joinable();
}

void stream_road::release_end() const
{
    const uint64_t one = 1;
    std::ignore = write(stop, &one, sizeof one); // fails only when it is set already
}
