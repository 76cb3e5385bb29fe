#include "tools/caption_feed/caption_feed.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <tuple>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "toolkit/comm/comm_sender.hpp"
#include "tools/caption_feed/broadcast_source.hpp"
#include "tools/caption_feed/caption_source.hpp"
#include "tools/caption_feed/child_process.hpp"
#include "tools/caption_feed/cue_packet.hpp"

namespace
{

constexpr size_t most_waiting_cues = 256;      // of a source; it is not read further then
constexpr size_t most_unsent_bytes = 65536;    // beyond that, cues stay with their source
constexpr int64_t clock_check_ms = 100;        // how often to look whether the clock may start
constexpr int64_t longest_wait_ms = 3'600'000; // fits the int of poll(2)

struct caption_feed {
    std::vector<std::unique_ptr<caption_source>> sources;
    std::unique_ptr<broadcast_source> broadcast; // null: the stream is left to the receiver
    comm_sender sender;
    bool sending = true; // false once the receiver has closed its socket
    pid_t receiver = -1;
    int receivers_status = -1;   // negative while it runs
    int signals = -1;            // signalfd(2)
    int64_t clock_start_ms = -1; // negative until the receiver has begun to work on the stream
    bool released_end = false;   // of the stream, to the receiver

    ~caption_feed()
    {
        if (signals >= 0)
            std::ignore = close(signals); // nothing is written to it
    }
};

int64_t monotonic_ms()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

int fail(const char* what, const char* why)
{
    fprintf(stderr, "vorn_caption_feed: %s: %s\n", what, why);
    return status_feed_failed;
}

// SIGCHLD and the signals to pass on are read from a descriptor instead of being caught. A parent
// may have left SIGCHLD ignored, and then the kernel would tell nothing of a child's end.
[[nodiscard]] bool take_signals(caption_feed& feed)
{
    if (std::signal(SIGCHLD, SIG_DFL) == SIG_ERR)
        return false;
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
        sigaddset(&taken, signal);
    if (sigprocmask(SIG_BLOCK, &taken, nullptr) != 0)
        return false;
    feed.signals = signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC);
    return feed.signals >= 0;
}

[[nodiscard]] bool open_sources(caption_feed& feed, const feed_options& options, std::string& error)
{
    for (const caption_option& captions : options.captions) {
        auto source = std::make_unique<caption_source>();
        source->language = captions.language;
        source->service = feed.sources.size() + 1;
        if (!open_caption_source(captions.source, *source, error))
            return false;
        source->reader.base_ticks = options.base_ticks.value_or(0);
        source->pacing = {.realtime =
                              options.pace == feed_pace::realtime ||
                              (options.pace == feed_pace::automatic && source->is_regular_file),
                          .lead_ms = options.lead_ms,
                          .base_ticks = options.base_ticks};
        feed.sources.push_back(std::move(source));
    }
    return true;
}

[[nodiscard]] bool open_stream(caption_feed& feed, const feed_options& options)
{
    if (options.services.empty() && !options.all_services)
        return true;
    if (isatty(STDIN_FILENO) == 1) { // the command could not see it behind a pipe
        errno = ENOTTY;
        return false;
    }
    feed.broadcast = std::make_unique<broadcast_source>();
    return open_broadcast(options, *feed.broadcast);
}

// The first packet is one that the receiver takes and drops: once it has been taken, the receiver
// is at work on the stream.
[[nodiscard]] bool start(caption_feed& feed, const std::vector<std::string>& command)
{
    int receivers_end = -1;
    if (!comm_sender_open(feed.sender, receivers_end))
        return false;
    const int input = feed.broadcast ? feed.broadcast->road.program_end : -1;
    feed.receiver = start_receiver(command, receivers_end, input);
    const int error = errno;
    std::ignore = close(receivers_end); // the receiver holds its own
    errno = error;

    comm_packet_builder keep_alive;
    if (feed.receiver < 0 || !keep_alive.begin("", 0))
        return false;
    feed.sender.queue(keep_alive.packet());
    return !feed.broadcast || feed.broadcast->road.start();
}

void check_clock(caption_feed& feed, int64_t now_ms)
{
    int not_taken_yet = 0;
    if (feed.clock_start_ms >= 0 || feed.sender.pending_bytes() != 0)
        return;
    // Where the kernel cannot tell, the clock starts now.
    if (ioctl(feed.sender.fd, SIOCOUTQ, &not_taken_yet) != 0 || not_taken_yet == 0)
        feed.clock_start_ms = now_ms;
}

// How long the source's next cue has to wait; it has one.
int64_t wait_ms(const caption_feed& feed, const caption_source& source, int64_t now_ms)
{
    const int64_t for_rate = source.rate.next_ms(now_ms) - now_ms;
    if (!source.pacing.realtime)
        return for_rate;
    if (feed.clock_start_ms < 0)
        return clock_check_ms;
    const int64_t due_ms =
        feed.clock_start_ms + cue_due_ms(source.reader.cues.front(), source.pacing);
    return std::max(for_rate, due_ms - now_ms);
}

// False when the cue is too large to be sent.
[[nodiscard]] bool send_cue(caption_feed& feed, const caption_cue& cue, uint64_t service,
                            const std::string& language)
{
    comm_packet_builder packet;
    if (!build_cue_packet(cue, service, language, packet))
        return false;
    feed.sender.queue(packet.packet());
    return true;
}

void send_cue(caption_feed& feed, caption_source& source, const caption_cue& cue, int64_t now_ms)
{
    if (cue.text.empty())
        return; // shows nothing
    if (send_cue(feed, cue, source.service, source.language))
        source.rate.take(now_ms);
    else
        fprintf(stderr, "%s:%zu: the cue is too large; the cue is skipped\n", source.name.c_str(),
                cue.line);
}

bool may_send(const caption_feed& feed)
{
    return feed.sending && feed.sender.pending_bytes() < most_unsent_bytes;
}

void send_due_cues(caption_feed& feed, int64_t now_ms)
{
    for (const auto& source : feed.sources) {
        std::deque<caption_cue>& cues = source->reader.cues;
        while (may_send(feed) && !cues.empty() && wait_ms(feed, *source, now_ms) <= 0) {
            send_cue(feed, *source, cues.front(), now_ms);
            cues.pop_front();
        }
    }
}

// The stream keeps time itself.
void send_broadcast_cues(caption_feed& feed, int64_t now_ms)
{
    if (!feed.broadcast)
        return;
    for (broadcast_track& track : feed.broadcast->tracks) {
        while (may_send(feed) && !track.cues.empty() && track.rate.next_ms(now_ms) <= now_ms) {
            if (send_cue(feed, track.cues.front(), track.service, track.language))
                track.rate.take(now_ms);
            else
                fprintf(stderr, "%s: a cue is too large; it is skipped\n",
                        name_of(track.from).c_str());
            track.cues.pop_front();
        }
    }
}

void read_due_broadcast(caption_feed& feed, int64_t now_ms)
{
    if (feed.broadcast && !feed.broadcast->ended && now_ms >= feed.broadcast->next_read_ms)
        read_broadcast(*feed.broadcast, now_ms);
}

void take_wake_up(broadcast_source& source)
{
    uint64_t times = 0;
    std::ignore = read(source.road.copy_waits, &times, sizeof times); // there is something to read
    source.next_read_ms = 0;
}

bool has_all_been_sent(const caption_feed& feed)
{
    return feed.sender.pending_bytes() == 0 &&
           std::ranges::all_of(feed.broadcast->tracks,
                               [](const broadcast_track& track) { return track.cues.empty(); });
}

// Once all that the stream's end brought has been sent, the receiver may see that end.
void release_end_of_stream(caption_feed& feed)
{
    if (!feed.broadcast || !feed.broadcast->ended || feed.released_end ||
        (feed.sending && !has_all_been_sent(feed)))
        return;
    feed.released_end = true;
    feed.broadcast->road.release_end();
}

// Of a stream that goes on when the receiver ends, none is missing.
void report_unsent_cues(const caption_feed& feed)
{
    if (!feed.broadcast || !feed.broadcast->ended)
        return;
    for (const broadcast_track& track : feed.broadcast->tracks)
        if (!track.cues.empty())
            fprintf(stderr, "%s: the last %zu cues could not be sent\n",
                    name_of(track.from).c_str(), track.cues.size());
}

void stop_sending(caption_feed& feed)
{
    if (!feed.sending)
        return;
    feed.sending = false;
    feed.sender.close();
    for (const auto& source : feed.sources)
        close_caption_source(*source);
}

void flush(caption_feed& feed)
{
    if (!feed.sending)
        return;
    const comm_send_result result = feed.sender.flush();
    if (result == comm_send_result::peer_gone || result == comm_send_result::failed)
        stop_sending(feed);
}

void report_problems(caption_source& source)
{
    for (const vtt_problem& problem : source.reader.problems)
        fprintf(stderr, "%s:%zu: %s\n", source.name.c_str(), problem.line, problem.text.c_str());
    source.reader.problems.clear();
}

void read_source(caption_source& source)
{
    if (!read_caption_source(source))
        fprintf(stderr, "%s: cannot be read any further: %s\n", source.name.c_str(),
                std::strerror(errno));
    report_problems(source);
}

void take_ended_child(caption_feed& feed, pid_t pid, int wait_status)
{
    if (pid == feed.receiver) {
        feed.receivers_status = shell_status(wait_status);
        return;
    }
    for (const auto& source : feed.sources) {
        if (source->command_pid != pid)
            continue;
        source->command_pid = -1;
        if (wait_status != 0 && feed.sending) // once nobody reads its output, it is bound to fail
            fprintf(stderr, "%s: ended with status %d\n", source->name.c_str(),
                    shell_status(wait_status));
    }
}

void take_pending_signals(caption_feed& feed)
{
    signalfd_siginfo info = {};
    while (read(feed.signals, &info, sizeof info) == sizeof info) {
        const auto signal = static_cast<int>(info.ssi_signo);
        if (signal != SIGCHLD)
            std::ignore = kill(feed.receiver, signal); // it may have ended already
    }
    int wait_status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &wait_status, WNOHANG)) > 0;)
        take_ended_child(feed, pid, wait_status);
}

int poll_timeout(const caption_feed& feed, int64_t now_ms)
{
    int64_t shortest = -1; // until the receiver takes something, or ends
    const auto shorten = [&shortest](int64_t wait) {
        const int64_t bounded = std::clamp(wait, int64_t{0}, longest_wait_ms);
        shortest = shortest < 0 ? bounded : std::min(shortest, bounded);
    };
    if (feed.broadcast && !feed.broadcast->ended)
        shorten(feed.broadcast->next_read_ms - now_ms);
    if (!may_send(feed))
        return static_cast<int>(shortest);
    if (feed.broadcast)
        for (const broadcast_track& track : feed.broadcast->tracks)
            if (!track.cues.empty())
                shorten(track.rate.next_ms(now_ms) - now_ms);
    for (const auto& source : feed.sources) {
        if (source->pacing.realtime && feed.clock_start_ms < 0)
            shorten(clock_check_ms);
        if (!source->reader.cues.empty())
            shorten(wait_ms(feed, *source, now_ms));
    }
    return static_cast<int>(shortest);
}

// One entry for the signals, one for the receiver, one for the stream, one for each source; a
// negative descriptor is passed over.
std::vector<pollfd> poll_list(const caption_feed& feed)
{
    std::vector<pollfd> list;
    list.push_back({.fd = feed.signals, .events = POLLIN, .revents = 0});
    const short for_receiver = feed.sender.pending_bytes() != 0 ? POLLOUT : 0;
    list.push_back({.fd = feed.sender.fd, .events = for_receiver, .revents = 0});
    const int for_stream = feed.broadcast ? feed.broadcast->road.copy_waits : -1;
    list.push_back({.fd = for_stream, .events = POLLIN, .revents = 0});
    for (const auto& source : feed.sources) {
        const bool has_room = source->reader.cues.size() < most_waiting_cues;
        list.push_back({.fd = has_room ? source->fd : -1, .events = POLLIN, .revents = 0});
    }
    return list;
}

[[nodiscard]] bool wait_and_read(caption_feed& feed, int64_t now_ms)
{
    std::vector<pollfd> list = poll_list(feed);
    if (poll(list.data(), list.size(), poll_timeout(feed, now_ms)) < 0)
        return errno == EINTR;

    if (list[0].revents != 0)
        take_pending_signals(feed);
    if ((list[1].revents & (POLLHUP | POLLERR)) != 0)
        stop_sending(feed);
    if (list[2].revents != 0)
        take_wake_up(*feed.broadcast);
    for (size_t i = 0; i < feed.sources.size(); ++i)
        if (list[3 + i].revents != 0 && feed.sources[i]->fd >= 0)
            read_source(*feed.sources[i]);
    return true;
}

} // namespace

int run_caption_feed(const feed_options& options)
{
    caption_feed feed;
    std::string error;
    if (!take_signals(feed))
        return fail("signals", std::strerror(errno));
    if (!open_sources(feed, options, error)) {
        fprintf(stderr, "vorn_caption_feed: %s\n", error.c_str());
        return status_feed_failed;
    }
    if (!open_stream(feed, options))
        return fail("standard input", std::strerror(errno));
    if (!start(feed, options.command))
        return fail("cannot start the command", std::strerror(errno));

    while (feed.receivers_status < 0) {
        const int64_t now_ms = monotonic_ms();
        if (feed.sending)
            check_clock(feed, now_ms);
        read_due_broadcast(feed, now_ms);
        send_due_cues(feed, now_ms);
        send_broadcast_cues(feed, now_ms);
        flush(feed);
        release_end_of_stream(feed);
        if (!wait_and_read(feed, now_ms))
            return fail("poll", std::strerror(errno));
    }
    report_unsent_cues(feed);
    return feed.receivers_status;
}
