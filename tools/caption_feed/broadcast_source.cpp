#include "tools/caption_feed/broadcast_source.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <span>
#include <utility>

#include <unistd.h>

#include "toolkit/pts_clock.hpp"

namespace
{

void add_track(broadcast_source& source, const caption_service& service,
               const std::string& language)
{
    source.languages.push_back(language);
    source.tracks.push_back({.from = service,
                             .language = language,
                             .service = source.languages.size(),
                             .rate = {},
                             .cues = {}});
}

// A second service of a language is told apart by a private subtag (RFC 5646, 2.2.7), which has at
// most 8 letters. A track keeps its language when another service goes on in it, so the service
// that a subtag names may come back as a third.
std::string free_language(const broadcast_source& source, const caption_service& service)
{
    const auto is_taken = [&source](const std::string& language) {
        return std::ranges::count(source.languages, language) != 0;
    };
    if (!is_taken(service.language))
        return service.language;
    const std::string name = name_of(service); // "cc3", "708:1", "teletext:888"
    const std::string digits = name.substr(name.find(':') + 1);
    const char* const kind = service.kind == caption_kind::teletext ? "p"
                             : service.kind == caption_kind::cea708 ? "s"
                                                                    : "";
    const std::string subtagged = service.language + "-x-" + kind + digits;
    std::string language = subtagged;
    for (int i = 2; is_taken(language); ++i)
        language = subtagged + "-" + std::to_string(i);
    return language;
}

// What the stream has announced since: new tracks, and services that go on in the place of others.
void take_announcements(broadcast_source& source)
{
    const std::vector<caption_track>& found = source.captions.tracks;
    for (size_t i = 0; i < found.size(); ++i) {
        const caption_service& service = found[i].service;
        if (i == source.tracks.size())
            add_track(source, service, free_language(source, service));
        else if (source.tracks[i].from == service)
            continue;
        source.tracks[i].from = service;
        fprintf(stderr, "the stream announces %s; its language becomes '%s'\n",
                name_of(service).c_str(), source.tracks[i].language.c_str());
    }
}

caption_cue cue_of(const broadcast_cue& cue)
{
    caption_cue sent;
    sent.start_ms = cue.start / pts_ticks_per_millisecond;
    sent.end_ms = cue.end / pts_ticks_per_millisecond;
    sent.stream_ticks = static_cast<uint64_t>(cue.start) & pts_mask;
    sent.settings = cue.settings;
    sent.text = cue.text;
    return sent;
}

void take_cues(broadcast_source& source)
{
    take_announcements(source);
    for (size_t i = 0; i < source.tracks.size(); ++i) {
        caption_track& from = source.captions.tracks[i];
        broadcast_track& to = source.tracks[i];
        for (const broadcast_cue& cue : from.cues)
            to.cues.push_back(cue_of(cue));
        from.cues.clear();
        size_t lost = std::exchange(from.lost, 0);
        for (; to.cues.size() > most_waiting_broadcast_cues; ++lost)
            to.cues.pop_front();
        if (lost > 0)
            fprintf(stderr, "%s: %zu cues came faster than they can be sent; they are skipped\n",
                    name_of(to.from).c_str(), lost);
    }
}

// The pipe is empty. Where the road found it full, it goes on with what comes now.
void note_gap(broadcast_source& source)
{
    if (!source.road.copy_has_gap)
        return;
    fprintf(stderr, "the stream came faster than its captions could be read; some are skipped\n");
    source.captions.lose_bytes();
    source.road.copy_has_gap = false;
}

void end_broadcast(broadcast_source& source)
{
    source.captions.finish();
    take_cues(source);
    source.ended = true;
}

} // namespace

bool open_broadcast(const feed_options& options, broadcast_source& source)
{
    for (const caption_option& other : options.captions)
        source.languages.push_back(other.language);
    source.captions.all_services = options.all_services;
    source.captions.most_tracks = most_languages - options.captions.size();
    for (const caption_service& service : options.services) {
        source.captions.tracks.push_back({.service = service});
        add_track(source, service, service.language);
    }
    return source.road.open(STDIN_FILENO);
}

void read_broadcast(broadcast_source& source, int64_t now_ms)
{
    std::array<uint8_t, 65536> bytes;
    constexpr size_t most_at_once = 32 * bytes.size(); // then others have their turn
    size_t total = 0;
    while (total < most_at_once) {
        const ssize_t got = read(source.road.copy_end, bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == EAGAIN) {
            note_gap(source);
            break;
        }
        if (got <= 0) {
            end_broadcast(source);
            return;
        }
        total += static_cast<size_t>(got);
        source.captions.feed(std::span(bytes).first(static_cast<size_t>(got)));
    }
    take_cues(source);
    source.next_read_ms = total < most_at_once ? now_ms + broadcast_pause_ms : now_ms;
}
