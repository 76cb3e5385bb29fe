// vorn_hls_record: takes a programme out of a live presentation while that goes on.

#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <tuple>

#include <CLI/CLI.hpp>
#include <poll.h>
#include <sys/signalfd.h>

#include "publisher/base/clock.hpp"
#include "publisher/base/program.hpp"
#include "publisher/follow/directory_watch.hpp"
#include "publisher/record/recording.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int status_bad_usage = 64; // EX_USAGE

constexpr int64_t look_again_ms = 1000; // where nothing wakes us up
constexpr int64_t uneven_ms = 10000;    // that the first list is waited for by the others

// "2026-11-21T20:15:00Z", or with an offset like +01:00, in ticks since 1970; whenever: it is none.
int64_t ticks_of_time(const std::string& text)
{
    std::tm time{};
    const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S%z", &time);
    if (end == nullptr || *end != '\0')
        return whenever;
    const long offset = time.tm_gmtoff; // timegm() sets it
    return (int64_t{timegm(&time)} - offset) * pts_ticks_per_second;
}

// Returns false where there is nothing to do; `status` is the program's then.
bool parse_command_line(int argc, char** argv, recording_settings& settings, int& status)
{
    CLI::App app(
        "Makes a recording of a presentation that vorn_hls_publish keeps, while it goes on.",
        "vorn_hls_record");
    std::string begin;
    std::string end;
    const auto is_time = [](const std::string& text) {
        return ticks_of_time(text) == whenever
                   ? "'" + text + "' is no time like 2026-11-21T20:15:00Z"
                   : std::string();
    };
    app.set_version_flag("--version", VORN_VERSION);
    app.add_option("--from", settings.from, "directory of the live presentation")
        ->type_name("DIR")
        ->required();
    app.add_option("--to", settings.to, "directory of the recording; it is made")
        ->type_name("DIR")
        ->required();
    app.add_option("--playlist", settings.playlist, "the master playlist in both (index.m3u8)")
        ->type_name("NAME");
    app.add_option("--begin", begin, "where it begins (with the newest segment)")
        ->type_name("TIME")
        ->check(is_time);
    app.add_option("--end", end, "where it ends (when it is stopped)")
        ->type_name("TIME")
        ->check(is_time);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? 0 : status_bad_usage;
        return false;
    }
    if (!begin.empty())
        settings.begin = ticks_of_time(begin);
    if (!end.empty())
        settings.end = ticks_of_time(end);
    if (!end.empty() && settings.end <= settings.begin) {
        std::fprintf(stderr, "the end is before the beginning\n");
        status = status_bad_usage;
        return false;
    }
    return true;
}

// Takes what comes until the recording is complete or a signal ends it.
void follow(recording& r, const recording_settings& settings)
{
    const descriptor signals = take_signals({SIGTERM, SIGINT});
    directory_watch watch;
    std::string told;
    int64_t ended_ms = -1;
    for (;;) {
        std::string error;
        std::ignore = watch.watch(settings.from, error); // without it, only time wakes us up
        error.clear();
        const recording_state state = r.step(error);
        if (!error.empty() && error != told)
            std::fprintf(stderr, "%s\n", error.c_str());
        told = error;
        if (state == recording_state::complete && ended_ms < 0)
            ended_ms = boot_ms();
        if (ended_ms >= 0 && (r.is_even() || boot_ms() - ended_ms > uneven_ms))
            return;

        pollfd polled[] = {
            {.fd = signals.get(), .events = POLLIN, .revents = 0},
            {.fd = watch.fd(), .events = POLLIN, .revents = 0},
        };
        if (poll(polled, 2, look_again_ms) <= 0)
            continue;
        signalfd_siginfo info{};
        if (polled[0].revents != 0 && read(signals.get(), &info, sizeof(info)) == sizeof(info) &&
            ended_ms < 0)
            ended_ms = boot_ms();
        if (polled[1].revents != 0)
            watch.drain();
    }
}

int run(int argc, char** argv)
{
    recording_settings settings;
    int status = 0;
    if (!parse_command_line(argc, argv, settings, status))
        return status;
    recording r(settings);
    std::string error;
    if (!r.open(error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return status_failed;
    }
    follow(r, settings);
    if (!r.close(error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return status_failed;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    return run_guarded("vorn_hls_record", run, argc, argv);
}
