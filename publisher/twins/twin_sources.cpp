#include "publisher/twins/twin_sources.hpp"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "publisher/base/waits.hpp"

namespace
{

// Where a source goes on that is fetched: files of a spool that is gone come anew, so that nothing
// can be told by what they were. The fragment before the place is read again, as it is elsewhere.
source_position position_in_spool(source_position position)
{
    if (position.offset == 0 && position.number > 0 && position.last_bytes > 0) {
        position.number--;
        position.offset = position.last_bytes;
    }
    position.last_inode = 0;
    position.last_bytes = 0;
    return position;
}

// Of sources that there were.
void remove_other_spools(const std::string& spools, const rendition_settings& settings)
{
    std::error_code failed; // what cannot be removed stays
    for (const auto& entry : std::filesystem::directory_iterator(spools, failed)) {
        const std::string name = entry.path().filename();
        const size_t dot = name.rfind('.');
        size_t index = 0;
        std::from_chars(name.data() + dot + 1, name.data() + name.size(), index);
        const bool is_used = index < settings.sources.size() && is_url(settings.sources[index]);
        if (dot != std::string::npos && name.substr(0, dot) == settings.name && !is_used)
            std::filesystem::remove_all(entry.path(), failed);
    }
}

} // namespace

twin_sources::twin_sources(const rendition_settings& settings, http_client& client,
                           const http_settings& fetch, const std::string& spools,
                           int64_t longest_gop, int64_t outgrown_ms)
    : room_(settings.sources.size(), static_cast<int64_t>(settings.wait * 1000))
{
    remove_other_spools(spools, settings);
    for (const std::string& path : settings.sources) {
        followed_source source;
        const std::string spool = fmt::format("{}/{}.{}", spools, settings.name, sources_.size());
        const std::string& directory = is_url(path) ? spool : path;
        source.directory = std::make_unique<source_directory>(directory, settings.m3u8_name,
                                                              longest_gop, outgrown_ms);
        if (is_url(path)) {
            source.mirror =
                std::make_unique<source_mirror>(client, fetch, path, settings.m3u8_name, spool);
            source.directory->be_spool_of(path);
        }
        source.place.path = path;
        if (settings.sources.size() > 1)
            source.directory->have_twins();
        source.directory->read_splices_of(static_cast<uint16_t>(settings.scte35_pid));
        sources_.push_back(std::move(source));
    }
    if (sources_.size() == 1)
        last_source_ = 0;
}

void twin_sources::resume(const std::vector<source_place>& places, const std::string& layout,
                          const timeline& line)
{
    if (line.begun)
        room_.resume(line.clock, layout);
    for (size_t i = 0; i < sources_.size(); i++) {
        const std::string& path = sources_[i].place.path;
        const auto place = std::find_if(places.begin(), places.end(), [&path](const auto& known) {
            return known.path == path && !known.position.base.empty();
        });
        if (place != places.end()) {
            sources_[i].place = *place;
            if (place->is_last)
                last_source_ = i;
            if (sources_[i].mirror) {
                const source_position position = position_in_spool(place->position);
                sources_[i].mirror->resume(position);
                sources_[i].directory->resume(position);
            } else {
                sources_[i].directory->resume(place->position);
            }
            if (place->is_matched)
                room_.resume_source(i, place->clock_offset, place->is_last);
        } else if (line.begun) {
            sources_[i].directory->resume_behind(line.clock);
        }
    }
}

void twin_sources::look(int64_t now_ms)
{
    for (size_t i = 0; i < sources_.size(); i++) {
        followed_source& source = sources_[i];
        if (source.waiting.size() >= twin_room::most_queued)
            continue;
        if (source.mirror) {
            source.mirror->look(now_ms);
            take_lines(source.mirror->report.lines);
        }
        source.directory->look(now_ms);
        take_lines(source.directory->report.lines);
        if (source.mirror)
            source.directory->report.there = source.mirror->report.there;
        hand_over(i, now_ms);
        if (source.directory->holds_gop())
            room_.expect(i, now_ms);
    }
    for (;;) {
        const twin_decision decision = room_.decide(now_ms);
        if (decision.verdict == twin_verdict::wait)
            break;
        take(decision);
    }
    tell_refusals();
}

void twin_sources::take_lines(std::vector<std::string>& told)
{
    lines_.insert(lines_.end(), std::make_move_iterator(told.begin()),
                  std::make_move_iterator(told.end()));
    told.clear();
}

void twin_sources::forget_behind(const std::vector<source_place>& places)
{
    for (const followed_source& source : sources_) {
        for (const source_place& place : places) {
            if (source.mirror && place.path == source.place.path)
                source.mirror->remove_behind(place.position);
        }
    }
}

void twin_sources::hand_over(size_t source, int64_t now_ms)
{
    followed_source& from = sources_[source];
    while (from.directory->has_gop()) {
        from.waiting.push_back(from.directory->take_gop());
        const source_gop& next = from.waiting.back();
        room_.add(source,
                  {
                      .start = next.what.start,
                      .length = next.length,
                      .content = next.what.content,
                      .errors = next.what.continuity_errors + next.what.transport_errors,
                      .torn = next.ends_run,
                      .after_loss = next.after_loss,
                      .layout = next.what.layout,
                  },
                  now_ms);
    }
}

void twin_sources::take(const twin_decision& decision)
{
    followed_source& from = sources_[decision.source];
    source_gop taken = std::move(from.waiting.front());
    from.waiting.pop_front();
    from.place.position = taken.after;
    if (decision.verdict == twin_verdict::drop)
        return;

    // Where it follows what another source delivered, only the very next picture goes on.
    taken.after_loss = taken.after_loss || last_source_ != decision.source;
    last_source_ = decision.source;
    chosen_gop chosen{.gop = std::move(taken), .source = decision.source, .places = {}};
    for (size_t i = 0; i < sources_.size(); i++) {
        source_place place = sources_[i].place;
        place.is_matched = room_.standing(i) == twin_standing::matched;
        place.clock_offset = room_.offset(i);
        place.is_last = i == decision.source;
        chosen.places.push_back(std::move(place));
    }
    ready_.push_back(std::move(chosen));
}

void twin_sources::tell_refusals()
{
    for (size_t i = 0; i < sources_.size(); i++) {
        const bool refused = is_refused(i);
        if (refused == std::exchange(sources_[i].refusal_told, refused))
            continue;
        lines_.push_back(path(i) + (refused
                                        ? ": it delivers another stream than what is published; "
                                          "nothing is taken from it until it does not"
                                        : ": it delivers the same stream again"));
    }
}

chosen_gop twin_sources::take_gop()
{
    chosen_gop taken = std::move(ready_.front());
    ready_.pop_front();
    return taken;
}

int64_t twin_sources::look_again_ms(int64_t now_ms) const
{
    int64_t soonest = room_.decide_again_ms(now_ms);
    for (const followed_source& source : sources_) {
        if (source.waiting.size() >= twin_room::most_queued)
            continue;
        soonest = sooner(soonest, source.directory->look_again_ms());
        if (source.mirror)
            soonest = sooner(soonest, source.mirror->look_again_ms());
    }
    return soonest;
}

const std::string& twin_sources::path(size_t source) const
{
    return sources_[source].place.path;
}

const source_report& twin_sources::report(size_t source) const
{
    return sources_[source].directory->report;
}

// One that is missing is told apart by the metrics: the others stand in.
source_report twin_sources::report() const
{
    source_report all{.names_used_again = true, .lines = {}};
    for (const followed_source& source : sources_) {
        const source_report& one = source.directory->report;
        all.there = all.there || one.there;
        all.names_used_again = all.names_used_again && one.names_used_again;
        all.runs += one.runs;
        all.lost_fragments += one.lost_fragments;
        all.unusable_fragments += one.unusable_fragments;
    }
    return all;
}

bool twin_sources::is_refused(size_t source) const
{
    return room_.standing(source) == twin_standing::refused;
}

const mirror_report* twin_sources::fetched(size_t source) const
{
    return sources_[source].mirror ? &sources_[source].mirror->report : nullptr;
}

std::vector<std::string> twin_sources::take_lines()
{
    return std::exchange(lines_, {});
}
