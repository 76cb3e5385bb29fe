#include "publisher/ladder/segment_files.hpp"

#include <algorithm>
#include <tuple>
#include <utility>

#include "publisher/base/clock.hpp"
#include "publisher/text/iframe_playlist.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr size_t most_subtitle_bytes = size_t{1} << 20;

// What sources may make us keep and write again with each segment.
constexpr size_t most_languages = 32;
constexpr size_t most_kept_cues = 1024; // of a language
constexpr size_t most_kept_bytes = size_t{256} << 10;

// Neighbouring ranges of one file are one.
void add_range(std::vector<source_range>& ranges, const source_range& next)
{
    if (!ranges.empty() && ranges.back().file == next.file && ranges.back().end == next.begin)
        ranges.back().end = next.end;
    else
        ranges.push_back(next);
}

// The file is the tables and then its GOPs, one after the other.
void note_keyframes(const std::vector<source_gop>& gops, segment_file& lead)
{
    uint64_t begin = gops.front().what.tables.size();
    for (const source_gop& next : gops) {
        const gop& what = next.what;
        const int64_t at = stamp_distance(gops.front().what.start, what.start);
        if (what.keyframe && what.picture_end > what.picture_begin && is_keyframe_listed(lead, at))
            lead.keyframes.push_back({
                .begin = begin + what.picture_begin - what.begin,
                .bytes = what.picture_end - what.picture_begin,
                .at = at,
            });
        begin += what.end - what.begin;
    }
}

// The oldest go first: cues may never end, or never begin.
void limit(std::vector<subtitle_cue>& cues)
{
    size_t count = 0;
    size_t bytes = 0;
    for (auto cue = cues.rbegin(); cue != cues.rend() && count < most_kept_cues; ++cue) {
        bytes += cue->text.size() + cue->settings.size();
        if (bytes > most_kept_bytes)
            break;
        count++;
    }
    cues.erase(cues.begin(), cues.end() - static_cast<std::ptrdiff_t>(count));
}

bool contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

segment_files::segment_files(output_directory& output, std::vector<std::string> rungs,
                             bool counts_keyframes)
    : output_(output), rungs_(std::move(rungs)), counts_keyframes_(counts_keyframes)
{
}

std::vector<std::string> segment_files::take_lines()
{
    return std::exchange(lines_, {});
}

void segment_files::resume(const presentation& p, const timeline& line)
{
    for (const track& t : p.master.shared) {
        if (t.kind != track_kind::subtitles)
            continue;
        languages_.push_back(t.language);
        if (p.listed.empty() || !line.begun)
            continue;
        const std::string text =
            output_.read_text(segment_file_name(t.name, p.listed.back()), most_subtitle_bytes);
        auto cues = parse_webvtt(text, line.clock, line.ticks);
        std::erase_if(cues, [&line](const subtitle_cue& cue) { return cue.end <= line.ticks; });
        cues_[t.language] = std::move(cues);
    }
}

making segment_files::make(const planned_segment& plan, made_segment& made, presentation& p)
{
    made.linked.assign(rungs_.size(), false);
    making result = making::source_failed; // of all
    for (size_t i = 0; i < rungs_.size(); i++) {
        if (plan.rungs[i].empty())
            continue;
        const making of_rung = make_rung(plan.rungs[i], rungs_[i], made, p);
        if (of_rung == making::failed)
            return of_rung;
        if (of_rung == making::source_failed) {
            lines_.push_back(failure_);
            continue;
        }
        made.linked[i] = last_was_link_;
        result = making::made;
    }
    if (result == making::made && !make_subtitles(plan, made, p))
        return making::failed;
    return result;
}

// With the shared tracks that no rung before it had.
making segment_files::make_rung(const std::vector<source_gop>& gops, const std::string& name,
                                made_segment& made, const presentation& p)
{
    const size_t files_before = made.what.files.size();
    const size_t shared_before = made.shared.size();
    making result = make_shared(gops, made);
    if (result == making::made) {
        std::vector<source_range> ranges;
        for (const source_gop& gop : gops)
            add_range(ranges,
                      {.file = gop.file.get(), .begin = gop.what.begin, .end = gop.what.end});
        result = make_file(name, gops.front().what.tables, ranges, made.what);
    }
    if (result == making::made && counts_keyframes_) {
        segment_file& lead = made.what.files.back();
        lead.first_keyframe = first_keyframe_behind(p.listed.empty() ? nullptr : &p.listed.back(),
                                                    name, unix_ms() / 1000);
        note_keyframes(gops, lead);
    }
    if (result != making::source_failed)
        return result;
    for (size_t i = files_before; i < made.what.files.size(); i++)
        std::ignore = output_.remove( // is removed at the next start if it stays
            segment_file_name(made.what.files[i].track, made.what));
    made.what.files.resize(files_before);
    made.shared.resize(shared_before);
    return result;
}

making segment_files::make_shared(const std::vector<source_gop>& gops, made_segment& made)
{
    for (const track_range& first : gops.front().tracks) {
        track of = track_named(shared_track_name(rungs_.front(), first.track));
        if (has_file_of(made.what, of.name))
            continue;
        std::vector<source_range> ranges;
        for (const source_gop& gop : gops) {
            for (const track_range& t : gop.tracks) {
                if (t.track != first.track)
                    continue;
                add_range(ranges, {.file = t.file.get(), .begin = t.begin, .end = t.end});
                of.language = t.facts.language;
                of.codec = t.facts.codec;
            }
        }
        const making result = make_file(of.name, first.tables, ranges, made.what);
        if (result != making::made)
            return result;
        made.shared.push_back(std::move(of));
    }
    return making::made;
}

making segment_files::make_file(const std::string& name, const std::vector<uint8_t>& tables,
                                const std::vector<source_range>& ranges, segment& s)
{
    const made_file file = output_.make_segment(segment_file_name(name, s), tables, ranges);
    if (file.how == made_by::failure) {
        failure_ = file.error;
        return file.source_failed ? making::source_failed : making::failed;
    }
    last_was_link_ = file.how == made_by::link;
    s.files.push_back({.track = name, .bytes = file.bytes});
    return making::made;
}

bool segment_files::make_text(const std::string& name, const std::string& text, segment& s)
{
    const made_file file = output_.make_text(segment_file_name(name, s), text);
    if (file.how == made_by::failure) {
        failure_ = file.error;
        return false;
    }
    s.files.push_back({.track = name, .bytes = file.bytes});
    return true;
}

// Earlier segments that lack the track have no cues. A list of a day has 14,400 of them, so their
// files are links to one.
bool segment_files::fill(const std::string& track, made_segment& made, presentation& p)
{
    const std::string no_cues = "WEBVTT\n\n";
    std::string made_last;
    for (auto s = p.listed.rbegin(); s != p.listed.rend() && !has_file_of(*s, track); ++s) {
        const std::string file = segment_file_name(track, *s);
        if (!made_last.empty() && output_.link_again(made_last, file)) {
            s->files.push_back({.track = track, .bytes = no_cues.size()});
        } else if (make_text(track, no_cues, *s)) {
            made_last = file;
        } else {
            return false;
        }
        made.filled.push_back(s->sequence);
    }
    return true;
}

// Every language has every segment, also those from before it was first heard of. The first rung
// that has a language gives it.
bool segment_files::make_subtitles(const planned_segment& plan, made_segment& made, presentation& p)
{
    auto& cues = made.cues = cues_;
    auto& languages = made.languages = languages_;
    if (plan.at.discontinuity)
        cues.clear(); // their times are of another stretch
    std::vector<std::string> given;
    for (const auto& gops : plan.rungs) {
        std::vector<std::string> here;
        for (const source_gop& gop : gops) {
            for (const std::string& language : gop.languages) {
                if (!contains(languages, language) && languages.size() < most_languages)
                    languages.push_back(language);
                if (!contains(given, language) && !contains(here, language))
                    here.push_back(language);
            }
            for (const subtitle_text& subtitles : gop.subtitles) {
                if (contains(given, subtitles.language) || !contains(languages, subtitles.language))
                    continue;
                auto more = parse_webvtt(subtitles.text, plan.at.clock, plan.at.ticks);
                auto& all = cues[subtitles.language];
                for (subtitle_cue& cue : more) { // another rung may have given it already
                    if (std::find(all.begin(), all.end(), cue) == all.end())
                        all.push_back(std::move(cue));
                }
            }
        }
        given.insert(given.end(), here.begin(), here.end());
    }
    const int64_t end = plan.at.ticks + plan.duration;
    for (const std::string& language : languages) {
        const std::string name = shared_track_name(rungs_.front(), subtitle_part(language));
        auto& of_language = cues[language];
        if (!make_text(name, webvtt_segment(of_language, plan.at.ticks, end, plan.at.clock),
                       made.what))
            return false;
        if (!fill(name, made, p))
            return false;
        std::erase_if(of_language,
                      [end](const subtitle_cue& cue) { return cue.begin < end && cue.end <= end; });
        limit(of_language);
        track of = track_named(name);
        of.language = language;
        made.shared.push_back(std::move(of));
    }
    return true;
}

void segment_files::go_on_behind(made_segment& made)
{
    languages_ = std::move(made.languages);
    cues_ = std::move(made.cues);
}
