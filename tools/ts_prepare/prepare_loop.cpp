#include "tools/ts_prepare/prepare_loop.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/ts_prepare/descriptor_io.hpp"
#include "tools/ts_prepare/padding_need.hpp"
#include "tools/ts_prepare/padding_output.hpp"
#include "tools/ts_prepare/padding_pace.hpp"
#include "tools/ts_prepare/stream_preparer.hpp"

namespace
{

constexpr size_t buffer_bytes = 256 * 1024;
// The kernel grants a user's pipes 64 MiB in all: enough for a hundred channels of this size.
constexpr size_t wanted_input_pipe_bytes = 128 * 1024;
constexpr size_t wanted_output_pipe_bytes = 512 * 1024;

// Waking up for each datagram that arrives would cost more than everything else. On a pipe, which
// keeps them meanwhile, naps let some come together, and then wake the reader once for all of them.
// They are shorter where a nap fills three quarters of the pipe: at 8 Mbit/s this one does not
// quite.
constexpr int64_t shortest_nap_us = 1'000;
constexpr int64_t longest_nap_us = 90'000;

// How often padding goes out, while it does.
constexpr int64_t shortest_portion_us = 8'000;
constexpr int64_t longest_portion_us = 40'000;

constexpr int64_t idle_wait_us = 100'000; // for input, while there is nothing else to do

enum class input_state { open, lingering, flushing, done };

struct prepare_run {
    prepare_options options;
    stream_preparer preparer;
    padding_pace pace;
    padding_need need;
    std::vector<uint8_t> buffer = std::vector<uint8_t>(buffer_bytes);
    size_t filled = 0; // bytes in the buffer that wait for more

    bool input_is_file = false;
    size_t input_pipe = 0;  // capacity of the pipe on standard input; 0: no pipe
    size_t output_pipe = 0; // likewise
    int64_t nap_us = shortest_nap_us;
    int64_t most_nap_us = longest_nap_us;
    int64_t portion_us = longest_portion_us;
    bool more_at_once = true;     // the last read brought so much that more may stand there
    bool last_read_empty = false; // nothing stood there
    bool is_padding = false;

    input_state state = input_state::open;
    int64_t linger_until_us = 0;
    size_t sent_since_pace = 0; // that the pace has not seen
    int64_t padded_us = 0;      // when padding was due last
    int64_t start_us = 0;
    int64_t next_stats_us = 0;
};

int64_t monotonic_us()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

int fail_reading()
{
    fprintf(stderr, "vorn_ts_prepare: reading failed: %s\n", std::strerror(errno));
    return status_failed;
}

int fail_writing()
{
    if (errno == EPIPE)
        fprintf(stderr, "vorn_ts_prepare: the reader has gone\n");
    else
        fprintf(stderr, "vorn_ts_prepare: writing failed: %s\n", std::strerror(errno));
    return status_failed;
}

void print_notices(notice_board& notices)
{
    for (const std::string& line : notices.lines)
        fprintf(stderr, "%s\n", line.c_str());
    notices.lines.clear();
}

void print_counters(const prepare_run& run, int64_t now_us)
{
    const double seconds = static_cast<double>(now_us - run.start_us) / 1e6;
    fprintf(stderr, "%s\n", counters_as_json(run.preparer.counters, seconds).c_str());
}

[[nodiscard]] bool send_output(prepare_run& run, int64_t now_us)
{
    const size_t bytes = run.preparer.output.bytes;
    const bool sent = bytes == 0 || write_all(STDOUT_FILENO, run.preparer.output.pieces);
    run.sent_since_pace += bytes;
    note_output(run.need, bytes, run.preparer.fragment_may_end, now_us);
    clear_sent(run.preparer);
    return sent;
}

bool pads(const prepare_run& run)
{
    return run.pace.bits_per_second != 0 && may_pad(run.preparer);
}

bool padding_is_wanted(const prepare_run& run, int64_t now_us)
{
    const input_flow flow = run.last_read_empty ? input_flow::pauses : input_flow::comes;
    return pads(run) && (run.options.pad_always || padding_helps(run.need, flow, now_us));
}

// Waits until there may be input, or padding is due. False when the reader has gone.
[[nodiscard]] bool wait_for_input(prepare_run& run)
{
    if (run.input_is_file || (run.more_at_once && run.state == input_state::open))
        return true;
    const bool is_open = run.state == input_state::open;
    const bool is_idle = is_open && run.last_read_empty && !run.is_padding;
    const bool naps = run.input_pipe != 0 && !is_idle;
    int64_t wait_us = is_idle || !is_open ? idle_wait_us : run.nap_us;
    if (run.is_padding)
        wait_us = std::min(wait_us, run.portion_us);
    const bool watch_input = is_open && !naps;
    pollfd fds[] = {
        {.fd = watch_input ? STDIN_FILENO : -1, .events = POLLIN, .revents = 0},
        {.fd = STDOUT_FILENO, .events = 0, .revents = 0},
    };
    const timespec wait{.tv_sec = 0, .tv_nsec = wait_us * 1000};
    if (ppoll(fds, 2, &wait, nullptr) < 0)
        return errno == EINTR;
    errno = EPIPE;
    return (fds[1].revents & (POLLERR | POLLNVAL)) == 0;
}

// A nap is to bring a part of what the pipe holds, and not much less.
void adjust_nap(prepare_run& run, size_t got)
{
    if (run.input_pipe == 0)
        return;
    const size_t most = run.input_pipe / 4 * 3;
    run.more_at_once = got >= most;
    if (got >= most)
        run.nap_us = std::max(run.nap_us / 2, shortest_nap_us);
    else if (got < most / 2)
        run.nap_us = std::min(run.nap_us * 2, run.most_nap_us);
}

void end_input(prepare_run& run, int64_t now_us)
{
    prepare_end(run.preparer, {run.buffer.data(), run.filled}, now_us);
    run.filled = 0;
    run.more_at_once = false;
    run.state = input_state::lingering;
    run.linger_until_us = run.input_is_file ? now_us : now_us + run.options.linger_us;
}

void take_input(prepare_run& run, size_t got, int64_t now_us)
{
    run.state = input_state::open;
    run.preparer.counters.input_bytes += got;
    run.filled += got;
    const size_t taken = prepare_input(run.preparer, {run.buffer.data(), run.filled}, now_us);
    run.filled -= taken;
    adjust_nap(run, got);
}

// Moves what is left over to the front, once what goes out of the buffer has been sent.
void close_gap(prepare_run& run, size_t end)
{
    const auto left = run.buffer.begin() + static_cast<ptrdiff_t>(end - run.filled);
    std::copy_n(left, run.filled, run.buffer.begin());
}

enum class read_result { taken, failed_reading, failed_writing };

[[nodiscard]] read_result read_input(prepare_run& run, int64_t now_us)
{
    run.more_at_once = false;
    run.last_read_empty = true;
    if (!run.input_is_file && !is_readable(STDIN_FILENO))
        return read_result::taken;
    const ssize_t got =
        read(STDIN_FILENO, run.buffer.data() + run.filled, run.buffer.size() - run.filled);
    if (got < 0)
        return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK
                   ? read_result::taken
                   : read_result::failed_reading;
    if (got == 0) {
        if (run.state == input_state::open)
            end_input(run, now_us);
        return send_output(run, now_us) ? read_result::taken : read_result::failed_writing;
    }
    run.last_read_empty = false;
    const size_t end = run.filled + static_cast<size_t>(got);
    take_input(run, static_cast<size_t>(got), now_us);
    if (!send_output(run, now_us))
        return read_result::failed_writing;
    close_gap(run, end);
    return read_result::taken;
}

// The most padding at a time. One portion may stand in the pipe when the next one goes: a quarter
// is kept free for input, as much as a read from a pipe brings.
size_t portion_bytes(const prepare_run& run)
{
    const size_t pipe = run.output_pipe != 0 ? run.output_pipe : wanted_output_pipe_bytes;
    return pipe / 8 * 3;
}

bool reader_is_behind(const prepare_run& run)
{
    return run.output_pipe != 0 && bytes_waiting(STDOUT_FILENO) > portion_bytes(run);
}

[[nodiscard]] bool pad(prepare_run& run, int64_t now_us)
{
    run.is_padding = padding_is_wanted(run, now_us);
    if (!pads(run) || now_us - run.padded_us < std::min(shortest_portion_us, run.portion_us))
        return true;
    run.padded_us = now_us;
    const size_t due = padding_due(run.pace, now_us, run.sent_since_pace);
    run.sent_since_pace = 0;
    if (due == 0 || !run.is_padding)
        return true;
    size_t sent = 0;
    padding_result result = padding_result::reader_behind;
    if (!reader_is_behind(run))
        result = send_padding(STDOUT_FILENO, process_padding(), due, sent);
    if (result == padding_result::reader_behind) {
        run.pace.credit = 0; // what the reader did not take is not made up for
        run.preparer.counters.reader_behind++;
    }
    run.preparer.counters.padding_packets += sent;
    note_padding(run.need, sent * ts_packet_bytes);
    return result != padding_result::failed;
}

void advance_end(prepare_run& run, int64_t now_us)
{
    if (run.state == input_state::lingering && now_us >= run.linger_until_us)
        run.state = input_state::flushing;
    if (run.state == input_state::flushing && (!pads(run) || is_flushed(run.need)))
        run.state = input_state::done;
}

void print_stats(prepare_run& run, int64_t now_us)
{
    if (run.options.stats_us == 0 || now_us < run.next_stats_us)
        return;
    print_counters(run, now_us);
    run.next_stats_us = now_us + run.options.stats_us;
}

void start_run(prepare_run& run, const prepare_options& options)
{
    struct stat status = {};
    run.options = options;
    run.input_is_file = fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode);
    run.input_pipe = widen_pipe(STDIN_FILENO, wanted_input_pipe_bytes);
    run.output_pipe = widen_pipe(STDOUT_FILENO, wanted_output_pipe_bytes);
    run.pace.bits_per_second = run.input_is_file ? 0 : options.pad_to;
    run.pace.most_packets = portion_bytes(run) / ts_packet_bytes;
    if (options.pad_to != 0) {
        // A tenth sooner than they have to be, so that late ones can be made up for.
        const auto portion_bits = static_cast<int64_t>(portion_bytes(run) * 8);
        run.portion_us = std::clamp(portion_bits * 900'000 / options.pad_to, shortest_nap_us,
                                    longest_portion_us);
    }
    run.most_nap_us = std::min(longest_nap_us, options.table_us); // tables come between two naps
    if (run.input_pipe == 0)
        run.nap_us = run.most_nap_us;
    start_preparer(run.preparer, options, !run.input_is_file);
    run.start_us = monotonic_us();
    run.next_stats_us = run.start_us + options.stats_us;
}

} // namespace

int run_prepare(const prepare_options& options)
{
    std::signal(SIGPIPE, SIG_IGN);                    // a write then reports EPIPE
    const auto run = std::make_unique<prepare_run>(); // too large for the stack
    start_run(*run, options);
    while (run->state != input_state::done) {
        if (!wait_for_input(*run))
            return fail_writing();
        const int64_t now_us = monotonic_us();
        if (run->state != input_state::flushing) {
            const read_result result = read_input(*run, now_us);
            if (result == read_result::failed_reading)
                return fail_reading();
            if (result == read_result::failed_writing)
                return fail_writing();
        }
        prepare_pause(run->preparer, now_us);
        if (!send_output(*run, now_us) || !pad(*run, now_us))
            return fail_writing();
        print_notices(run->preparer.notices);
        print_stats(*run, now_us);
        advance_end(*run, now_us);
    }
    if (options.stats_us != 0)
        print_counters(*run, monotonic_us());
    return 0;
}
