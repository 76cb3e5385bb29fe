// vorn_hls_publish: one presentation, in one thread. It waits for its sources, its clients of
// /metrics and the signals, and makes a step of the presentation when anything happens.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include <poll.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "publisher/base/clock.hpp"
#include "publisher/base/program.hpp"
#include "publisher/command_line.hpp"
#include "publisher/follow/directory_watch.hpp"
#include "publisher/follow/http_client.hpp"
#include "publisher/metrics/http_server.hpp"
#include "publisher/publisher.hpp"

namespace
{

constexpr int status_bad_configuration = 78; // EX_CONFIG; starting again would not help

constexpr int64_t without_watch_ms = 100; // between looks where nothing wakes us up

http_answer answer_for(publisher& p, const std::string& path)
{
    if (path == "/metrics")
        return {.status = 200,
                .content_type = "text/plain; version=0.0.4; charset=utf-8",
                .body = p.metrics_text(boot_ms())};
    if (path == "/healthz") {
        const std::string trouble = p.trouble(boot_ms());
        return {.status = trouble.empty() ? 200u : 503u,
                .body = trouble.empty() ? "ok\n" : trouble + '\n'};
    }
    if (path == "/segments")
        return {.status = 200, .content_type = "application/json", .body = p.deliveries()};
    return {.status = 404, .body = "there are /metrics, /healthz and /segments\n"};
}

class main_loop
{
public:
    main_loop(publisher& p, command_line& line, http_server& http, descriptor signals)
        : publisher_(p), line_(line), http_(http), signals_(std::move(signals))
    {
        uint64_t watchdog_us = 0;
        if (sd_watchdog_enabled(0, &watchdog_us) > 0)
            watchdog_ms_ = static_cast<int64_t>(watchdog_us / 1000 / 2);
    }

    void run()
    {
        std::ignore = sd_notify(0, "READY=1"); // nobody may be listening
        while (!stopped_) {
            publisher_.step(boot_ms());
            const bool watching = watch();
            int64_t wait_ms = publisher_.next_step_ms(boot_ms());
            if (!watching)
                wait_ms = std::min(wait_ms, without_watch_ms);
            if (watchdog_ms_ > 0) {
                wait_ms = std::min(wait_ms, watchdog_ms_);
                std::ignore = sd_notify(0, "WATCHDOG=1");
            }
            wait(wait_ms);
        }
        std::ignore = sd_notify(0, "STOPPING=1");
    }

private:
    // Watched before the wait and looked at after it, so nothing is missed for longer than that.
    bool watch()
    {
        std::string error;
        watches_.resize(publisher_.source_paths().size());
        bool watching = true;
        for (size_t i = 0; i < watches_.size() && watching; i++) {
            const std::string& path = publisher_.source_paths()[i];
            watching = is_url(path) || watches_[i].watch(path, error);
        }
        if (!watching && !told_)
            std::fprintf(stderr, "%s; it is looked at every %lld ms instead\n", error.c_str(),
                         static_cast<long long>(without_watch_ms));
        told_ = !watching;
        return watching;
    }

    void wait(int64_t wait_ms)
    {
        const int64_t end_ms = boot_ms() + wait_ms;
        while (!wait_once(end_ms - boot_ms()) && boot_ms() < end_ms) {
        }
    }

    // False: nothing has happened that a step would find. A part of a file that is fetched is that.
    bool wait_once(int64_t wait_ms)
    {
        polled_ = {
            {.fd = signals_.get(), .events = POLLIN, .revents = 0},
            {.fd = http_.fd(), .events = POLLIN, .revents = 0},
            {.fd = publisher_.fetch_fd(), .events = POLLIN, .revents = 0},
        };
        for (const directory_watch& watch : watches_)
            polled_.push_back({.fd = watch.fd(), .events = POLLIN, .revents = 0});
        const int64_t fetch_wait_ms = publisher_.fetch_wait_ms();
        if (fetch_wait_ms >= 0)
            wait_ms = std::min(wait_ms, fetch_wait_ms);
        if (poll(polled_.data(), polled_.size(), static_cast<int>(std::max<int64_t>(wait_ms, 0))) <
            0)
            return true;
        const auto ready = std::count_if(polled_.begin(), polled_.end(),
                                         [](const pollfd& one) { return one.revents != 0; });
        const bool other_than_fetch = ready > (polled_[2].revents != 0 ? 1 : 0);
        if (polled_[0].revents != 0)
            take_signal();
        for (size_t i = 0; i < watches_.size(); i++) {
            if (polled_[polled_.size() - watches_.size() + i].revents != 0)
                watches_[i].drain();
        }
        http_.serve(); // also what only time has brought about
        return publisher_.fetch() || other_than_fetch;
    }

    void take_signal()
    {
        signalfd_siginfo info{};
        if (read(signals_.get(), &info, sizeof(info)) != sizeof(info))
            return;
        if (info.ssi_signo != SIGHUP) {
            stopped_ = true;
            return;
        }
        publisher_settings wanted;
        std::string error;
        if (line_.config.empty())
            std::fprintf(stderr, "there is no configuration file to read again\n");
        else if (!read_settings(line_.config, wanted, error))
            std::fprintf(stderr, "%s\n", error.c_str());
        else
            publisher_.change(wanted);
    }

    publisher& publisher_;
    command_line& line_;
    http_server& http_;
    descriptor signals_;
    std::vector<directory_watch> watches_; // of the sources
    std::vector<pollfd> polled_;
    int64_t watchdog_ms_ = 0;
    bool told_ = false;
    bool stopped_ = false;
};

int run(int argc, char** argv)
{
    command_line line;
    switch (parse_command_line(argc, argv, VORN_VERSION, line)) {
    case parse_outcome::done:
        return 0;
    case parse_outcome::refused:
        return status_bad_configuration;
    case parse_outcome::run:
        break;
    }
    if (line.check)
        return 0;

    publisher p(line.settings);
    const start_result started = p.start();
    if (started != start_result::ready)
        return started == start_result::refused ? status_bad_configuration : status_failed;
    if (line.end)
        return p.end(boot_ms()) ? 0 : status_failed;
    if (p.has_ended()) {
        std::fprintf(stderr,
                     "%s: this presentation has ended; another one needs a directory or a "
                     "state of its own\n",
                     line.settings.output.c_str());
        return status_bad_configuration;
    }

    http_server http([&p](const std::string& path) { return answer_for(p, path); });
    std::string error;
    if (!line.settings.listen.empty() && !http.listen(line.settings.listen, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return status_failed;
    }
    if (http.port() > 0)
        std::fprintf(stderr, "listening on port %d\n", http.port());
    main_loop(p, line, http, take_signals({SIGTERM, SIGINT, SIGHUP})).run();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    return run_guarded("vorn_hls_publish", run, argc, argv);
}
