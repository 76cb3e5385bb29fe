#include "publisher/command_line.hpp"

#include <cstdio>

#include <CLI/CLI.hpp>

parse_outcome parse_command_line(int argc, char** argv, const char* version, command_line& line)
{
    CLI::App app("Publishes what vorn_mpegts_to_hls writes as an HLS presentation that outlives "
                 "restarts.",
                 "vorn_hls_publish");
    publisher_settings& settings = line.settings;
    rendition_settings rendition;
    app.set_version_flag("--version", version);
    auto* config = app.add_option("--config", line.config, "read the settings from this file")
                       ->type_name("FILE");
    const auto add = [&app, config](const char* name, auto& value, const char* help,
                                    const char* type) {
        return app.add_option(name, value, help)->type_name(type)->excludes(config);
    };
    add("--from", rendition.sources,
        "directory that is followed, or its URL; given again: another one of the same stream, which stands in for it",
        "DIR");
    add("--to", settings.output, "directory that is published in; it is made", "DIR");
    add("--m3u8-name", rendition.m3u8_name, "as given to vorn_mpegts_to_hls (ch1.m3u8)", "NAME");
    add("--wait", rendition.wait,
        "how long a damaged group of pictures waits for a better one (as long as it lasts)",
        "SECONDS")
        ->check(CLI::Range(0.0, most_wait));
    add("--playlist", settings.playlist, "the master playlist (index.m3u8)", "NAME");
    add("--segment", settings.segment, "how long segments are wanted (6)", "SECONDS")
        ->check(CLI::Range(least_segment, most_segment));
    add("--target-duration", settings.target_duration,
        "no segment, rounded, is longer (--segment, rounded)", "SECONDS")
        ->check(CLI::Range(int64_t{1}, most_target_duration));
    add("--window", settings.window, "how much is listed (60)", "SECONDS")
        ->check(CLI::Range(int64_t{1}, most_window));
    add("--dvr", settings.dvr,
        "in place of --window: how much is kept to seek back in, in folders by hour", "TIME");
    add("--dvr-bytes", settings.dvr_bytes, "it takes at most so much room (any)", "BYTES");
    app.add_flag("--event", settings.event,
                 "with --dvr: nothing leaves the list until it is full, and players are told so")
        ->excludes(config);
    app.add_flag("--iframes", settings.iframes, "list the keyframes alone too, for trick play")
        ->excludes(config);
    add("--scte35-pid", rendition.scte35_pid,
        "where the splice information is, if the PMT does not say it", "PID")
        ->check(CLI::Range(least_pid, most_pid));
    add("--state", settings.state, "database of the state (a dot file in --to)", "FILE");
    add("--listen", settings.listen, "where /metrics, /healthz and /segments are served",
        "ADDRESS:PORT");
    add("--ca-file", settings.fetch.ca_file,
        "who may vouch for the servers of URLs (those that the machine has)", "FILE");
    add("--netrc", settings.fetch.netrc, "users and passwords for the servers of URLs", "FILE");
    app.add_flag("--check", line.check, "say whether the settings are good, and end");
    app.add_flag("--end", line.end, "close the presentation: it gets no more segments");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const bool is_answer = app.exit(error) == 0;
        return is_answer ? parse_outcome::done : parse_outcome::refused;
    }

    std::string reason;
    if (!line.config.empty()) {
        if (read_settings(line.config, settings, reason))
            return parse_outcome::run;
    } else if (rendition.sources.empty() || settings.output.empty()) {
        reason = "either --config, or --from and --to are wanted";
    } else {
        settings.renditions.push_back(rendition);
        if (complete_settings(settings, reason))
            return parse_outcome::run;
    }
    std::fprintf(stderr, "%s\n", reason.c_str());
    return parse_outcome::refused;
}
