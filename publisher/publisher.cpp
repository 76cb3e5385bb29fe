#include "publisher/publisher.hpp"

#include <algorithm>
#include <cstdio>
#include <tuple>
#include <utility>

#include <fmt/format.h>
#include <poll.h>

#include "publisher/base/clock.hpp"
#include "publisher/base/waits.hpp"
#include "publisher/compose/torn_file.hpp"
#include "publisher/ladder/master.hpp"
#include "publisher/peer/peer_start.hpp"
#include "publisher/state/recovery.hpp"
#include "publisher/text/iframe_playlist.hpp"
#include "publisher/text/playlist_text.hpp"
#include "publisher/timeline/stream_time.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t retry_after_ms = 1000;
constexpr int64_t idle_ms = 1000;
constexpr int64_t sweep_ms = 50;      // between two folders
constexpr size_t most_planned = 4;    // segments that wait for room on the disk or the like
constexpr size_t most_delivered = 60; // segments whose sources are told

constexpr int64_t longest_unseen = 3600; // seconds that may be listed beyond the window

// What a system keeps in memory before it writes it to the disk, twice over.
constexpr int64_t longest_unwritten = 60 * pts_ticks_per_second;

// Before an end.
constexpr int64_t settled_ms = 1000;
constexpr int64_t most_settling_ms = 10000;
constexpr int settling_wait_ms = 20;

// A list has to grow within one and a half of its target duration; a little before, what there is
// goes into it.
constexpr int64_t late_ms_per_second = 1400;

// Players hold about three target durations: after that a viewer sees that nothing is published.
constexpr int64_t silent_ms_per_second = 3000;

std::vector<std::string> paths_of(const publisher_settings& settings)
{
    std::vector<std::string> paths;
    for (const rendition_settings& rendition : settings.renditions)
        paths.insert(paths.end(), rendition.sources.begin(), rendition.sources.end());
    return paths;
}

presentation_identity identity_of(const publisher_settings& settings)
{
    return {.output = settings.output,
            .playlist = settings.playlist,
            .target_duration = settings.target_duration,
            .slot = settings.numbers == numbering::stream ? limits_of(settings).wanted : 0};
}

template <typename Value>
bool contains(const std::vector<Value>& values, const Value& value)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

bool is_independent(const planned_segment& plan)
{
    return std::all_of(plan.rungs.begin(), plan.rungs.end(), [](const auto& gops) {
        return gops.empty() || gops.front().what.independent;
    });
}

std::vector<std::string> names_of(const segment& s)
{
    std::vector<std::string> names;
    for (const segment_file& file : s.files)
        names.push_back(segment_file_name(file.track, s));
    return names;
}

uint64_t begin_number()
{
    return static_cast<uint64_t>(unix_ms() / 1000);
}

} // namespace

publisher::publisher(publisher_settings settings)
    : settings_(std::move(settings)), rungs_(rendition_names(settings_)),
      source_paths_(paths_of(settings_)), files_(output_, rungs_, settings_.iframes),
      ladder_(settings_, client_), peers_(settings_, client_), registry_(new_metrics_registry()),
      retired_(output_), gathering_(limits_of(settings_), rungs_)
{
    for (const std::string& name : rungs_)
        reports_.push_back({.counts = metrics(registry_, name), .unlisted_since = {}});
    p_.target_duration = settings_.target_duration;
}

void publisher::tell(const std::string& line) const
{
    std::fprintf(stderr, "%s\n", line.c_str());
}

// The same trouble is told once, until it is over.
void publisher::fail(const std::string& what, int64_t now_ms)
{
    if (trouble_ != what)
        tell(what);
    trouble_ = what;
    retry_ms_ = now_ms + retry_after_ms;
    reports_.front().counts.count_failed_step();
}

std::string publisher::trouble(int64_t now_ms) const
{
    if (!trouble_.empty())
        return trouble_;
    if (is_held_back())
        return fmt::format("{}: the list is shorter than that of a peer", settings_.output);
    if (!p_.ended && peers_.are_ahead(p_))
        return fmt::format("{}: the list is behind that of a peer", settings_.output);
    const source_report all = report();
    if (all.names_used_again)
        return fmt::format("{}: a run uses names of an earlier one",
                           fmt::join(source_paths_, ", "));
    const bool is_silent = waited_ms(now_ms) > silent_ms_per_second * p_.target_duration;
    if (!p_.listed.empty() && !is_silent)
        return "";
    const std::string what = p_.listed.empty()
                                 ? "there is no segment yet"
                                 : fmt::format("no new segment for {} s", waited_ms(now_ms) / 1000);
    const char* why = all.there ? "nothing new comes from" : "there is no directory";
    return fmt::format("{}: {}; {} {}", settings_.output, what, why,
                       fmt::join(source_paths_, ", "));
}

// Of all rungs together.
source_report publisher::report() const
{
    source_report all{.names_used_again = true, .lines = {}};
    for (size_t rung = 0; rung < ladder_.count(); rung++) {
        const source_report one = ladder_.sources(rung).report();
        all.there = all.there || one.there;
        all.names_used_again = all.names_used_again && one.names_used_again;
    }
    return all;
}

// Before the first segment, since the start.
int64_t publisher::waited_ms(int64_t now_ms) const
{
    return now_ms - (newest_ms_ >= 0 ? newest_ms_ : started_ms_);
}

// --- taking up ---------------------------------------------------------------------------------

start_result publisher::start()
{
    std::string error;
    started_ms_ = boot_ms();
    if (!output_.open(settings_.output, error)) {
        tell(error);
        return start_result::failed;
    }
    const start_result taken_up = take_up_state();
    if (taken_up != start_result::ready)
        return taken_up;
    mend_listed();
    remove_leftovers();
    files_.resume(p_, head_.line);
    if (is_numbered_by_stream()) {
        go_on_behind_last();
        const start_result asked = begin_as_peer();
        if (asked != start_result::ready)
            return asked;
    }
    gathering_.resume(head_.line, head_.rungs, head_.next_sequence);
    ladder_.resume(gathering_.places(), head_.line);
    const sequences_on_disk on_disk = find_sequences(output_, rungs_);
    retired_.begin_times(on_disk.first, started_ms_);
    written_ = {{.next_sequence = on_disk.next, .ms = 0}};
    playlists_are_old_ = !p_.listed.empty();
    master_is_old_ = playlists_are_old_;
    // What is gathered is not to wait for longer than it would have without the start.
    if (!p_.listed.empty())
        newest_ms_ = started_ms_;
    return start_result::ready;
}

start_result publisher::take_up_state()
{
    const presentation_identity identity = identity_of(settings_);
    stored_state state;
    std::string error;
    state_opening opening = store_.open(settings_.state, identity, state, error);
    if (opening == state_opening::damaged) {
        const std::string aside = set_aside(settings_.state);
        tell(fmt::format("{} is damaged ({}) and is kept as {}", settings_.state, error,
                         aside.empty() ? "it is" : aside));
        opening = store_.open(settings_.state, identity, state, error);
    }
    switch (opening) {
    case state_opening::resumed:
        if (find_sequences(output_, rungs_).next > state.head.next_sequence)
            return recover("is older than the playlists");
        if (state.head.next_sequence == 0)
            return recover("holds nothing");
        adopt(std::move(state));
        return start_result::ready;
    case state_opening::fresh:
        return recover("is new");
    case state_opening::refused:
        tell(fmt::format("{}: {}", settings_.state, error));
        return start_result::refused;
    case state_opening::damaged:
    case state_opening::failed:
        break;
    }
    tell(fmt::format("{}: {}", settings_.state, error));
    return start_result::failed;
}

// From the playlists, or from nothing.
start_result publisher::recover(const char* why)
{
    stored_state state;
    int64_t target_found = 0;
    switch (recover_state(output_, rungs_, settings_.target_duration, state, target_found)) {
    case recovery::nothing:
        begin_presentation();
        return start_result::ready;
    case recovery::other_target:
        tell(fmt::format("{}: the playlists there have a target duration of {} s and not {} s, and "
                         "it never changes",
                         settings_.output, target_found, settings_.target_duration));
        return start_result::refused;
    case recovery::recovered:
        break;
    }
    tell(fmt::format("{} {}; the presentation goes on from its playlists, with segment {}",
                     settings_.state, why, state.head.next_sequence));
    for (retired_segment& r : state.retired) // the lists do not name them
        r.due_ms = started_ms_ + r.hold_ms;
    state.head.boot_id = boot_id();
    std::string error;
    if (!store_.save_all(state, error)) {
        tell(fmt::format("{}: {}", settings_.state, error));
        return start_result::failed;
    }
    adopt(std::move(state));
    return start_result::ready;
}

bool publisher::is_numbered_by_stream() const
{
    return settings_.numbers == numbering::stream;
}

// Where the stream's time stands behind what is published.
void publisher::go_on_behind_last()
{
    timeline& line = head_.line;
    if (!line.begun || p_.listed.empty())
        return;
    const segment& last = p_.listed.back();
    line.stream = stream_behind(line, last.sequence, last.duration, limits_of(settings_).wanted);
}

// It was away for so short a time that all peers still list what came next.
bool publisher::is_fresh() const
{
    const int64_t least = least_listed(p_.target_duration);
    const int64_t now = unix_ms() * pts_ticks_per_millisecond;
    return listed_duration(p_) >= least && now - date_of_arrival(head_.line) < least;
}

std::vector<peer_answer> publisher::ask_all_peers()
{
    std::vector<std::string> lines;
    auto answers = ask_peers(client_, settings_, lines);
    for (const std::string& line : lines)
        tell(line);
    return answers;
}

// What is not published here, a peer may have: its list has come further than this one had, or
// there was none. The stream alone does not tell how often its clock has jumped.
start_result publisher::begin_as_peer()
{
    if (is_fresh()) // an answer may take its time
        return start_result::ready;
    const auto answers = ask_all_peers();
    for (const peer_answer& answer : answers) {
        if (answer.list.target_duration != settings_.target_duration) {
            tell(fmt::format("{}: it has a target duration of {} s and not {} s", answer.url,
                             answer.list.target_duration, settings_.target_duration));
            return start_result::refused;
        }
        peers_.begin_with(answer);
    }
    std::ignore = take_up(answers, head_.next_sequence, is_needed); // else it goes on as it is
    return start_result::ready;
}

// Goes on as a peer does, if one has come further than `next`; false: none has.
bool publisher::take_up(const std::vector<peer_answer>& answers, uint64_t next,
                        bool (*is_wanted)(const media_list& list, uint64_t next))
{
    for (const peer_answer& answer : answers) {
        if (answer.list.target_duration != settings_.target_duration)
            continue;
        if (!is_wanted(answer.list, next))
            return false;
        std::string error;
        const auto place = ask_for_place(client_, settings_, answer, next,
                                         unix_ms() * pts_ticks_per_millisecond, error);
        if (!place) {
            tell(fmt::format("{}: {}; it is not known whether both publish the same", answer.url,
                             error));
            continue;
        }
        tell(fmt::format("{}: the presentation goes on as there, behind segment {}", answer.url,
                         place->next_sequence - 1));
        head_.next_sequence = place->next_sequence;
        head_.discontinuities = place->discontinuities;
        head_.line = place->line;
        head_.rungs.clear(); // what of the sources is before it shows by their clocks
        p_.next_sequence = head_.next_sequence;
        p_.discontinuities = head_.discontinuities;
        files_.forget_cues();
        return true;
    }
    return false;
}

// The clock has jumped, or the layout changed, while this publisher alone may have been cut off.
void publisher::find_place_again(int64_t now_ms)
{
    if (!gathering_.is_empty())
        gathering_.close();
    publish_planned(now_ms);
    if (gathering_.planned.empty() &&
        take_up(ask_all_peers(), gathering_.next_number(), goes_on_there))
        gathering_.take_up(head_.line, head_.next_sequence);
}

// Numbers set out from the time of day, so that they do not fall, and no name comes twice, even
// when everything about an earlier presentation is lost. There are fewer discontinuities than
// segments.
void publisher::begin_presentation()
{
    head_ = {};
    head_.boot_id = boot_id();
    if (is_numbered_by_stream()) // which is still to be read
        return;
    head_.next_sequence = begin_number();
    head_.first_sequence = head_.next_sequence;
    head_.discontinuities = head_.next_sequence / 60;
    p_.next_sequence = head_.next_sequence;
    p_.discontinuities = head_.discontinuities;
    p_.event_begin = settings_.event ? head_.first_sequence : 0;
}

void publisher::adopt(stored_state state)
{
    head_ = std::move(state.head);
    p_.next_sequence = head_.next_sequence;
    p_.discontinuities = head_.discontinuities;
    p_.event_begin = settings_.event ? head_.first_sequence : 0;
    p_.ended = head_.ended;
    p_.ranges = head_.line.ranges;
    p_.listed = std::move(state.listed);
    p_.master = std::move(state.master);
    retired_.take_up(std::move(state.retired));
    count_listed_bytes();
    if (std::exchange(head_.boot_id, boot_id()) != head_.boot_id)
        retired_.begin_times_anew(started_ms_);
}

// A power cut takes of what was written last. That is filled up; a list cannot go on behind what is
// missing further back, because it has no holes.
void publisher::mend_listed()
{
    state_step step{.head = head_, .added = {}, .retired = {}, .removed = {}, .master = nullptr};
    size_t bad = 0; // number of segments up to the last one that is not whole
    for (size_t i = 0; i < p_.listed.size(); i++) {
        segment& s = p_.listed[i];
        bool is_torn = false;
        for (segment_file& file : s.files) {
            const int64_t found = output_.size_of(segment_file_name(file.track, s));
            const bool is_whole = found > 0 && found == static_cast<int64_t>(file.bytes);
            is_torn = is_torn || !is_whole;
            if (!is_whole && (found > static_cast<int64_t>(file.bytes) || !mend(i, file)))
                bad = i + 1;
        }
        if (!is_torn)
            continue;
        step.added.push_back(s);
        tell(fmt::format("{}: segment {} is not there whole; {}", settings_.output, s.sequence,
                         bad == i + 1 ? "the list begins behind it" : "the rest is filled up"));
    }
    if (step.added.empty())
        return;
    step.retired = leave_list(bad);
    std::string error;
    if (!save(step, error))
        tell(fmt::format("{}: {}", settings_.state, error));
    retired_.add(std::move(step.retired));
    count_listed_bytes();
}

// False: it is too old to be torn, or cannot be written. Subtitles of any age may be: those of a
// language that is new are.
bool publisher::mend(size_t at, segment_file& file)
{
    const segment& s = p_.listed[at];
    const bool has_subtitles = track_named(file.track).kind == track_kind::subtitles;
    if (!has_subtitles && p_.listed.back().date - s.date > longest_unwritten)
        return false;
    uint64_t bytes = file.bytes;
    for (const keyframe& k : file.keyframes)
        bytes = std::max(bytes, k.begin + k.bytes);
    const std::string before =
        at > 0 ? segment_file_name(file.track, p_.listed[at - 1]) : std::string();
    const int64_t later = at > 0 && !s.discontinuity ? p_.listed[at - 1].duration : 0;
    file.bytes = fill_up(output_, segment_file_name(file.track, s), bytes, before, later);
    return file.bytes > 0;
}

void publisher::count_listed_bytes()
{
    listed_bytes_ = 0;
    for (const segment& s : p_.listed)
        listed_bytes_ += bytes_of(s);
}

// Whether a file is that of a segment that may be fetched.
bool publisher::is_known(const std::string& name, uint64_t sequence) const
{
    const segment* s = nullptr;
    if (!p_.listed.empty() && sequence >= p_.listed.front().sequence) {
        const uint64_t at = sequence - p_.listed.front().sequence;
        s = at < p_.listed.size() ? &p_.listed[static_cast<size_t>(at)] : nullptr;
    } else {
        s = retired_.find(sequence);
    }
    return s != nullptr && std::any_of(s->files.begin(), s->files.end(), [&](const auto& file) {
               return segment_file_name(file.track, *s) == name;
           });
}

// Files of steps that were begun and not saved. The folders may have very many: their turn comes
// when the presentation goes on already.
void publisher::remove_leftovers()
{
    remove_leftovers_of("");
    for (std::string& name : output_.names()) {
        if (is_folder_of_hour(name))
            unswept_.push_back(std::move(name));
    }
}

void publisher::remove_leftovers_of(const std::string& folder)
{
    const std::string before = folder.empty() ? "" : folder + '/';
    for (const std::string& file : output_.names(folder.empty() ? "." : folder)) {
        const std::string name = before + file;
        const auto [track, sequence] = parse_segment_name(file);
        const bool is_segment = sequence != 0 && contains(rungs_, track.substr(0, track.find('.')));
        if (is_unfinished_name(file) || (is_segment && !is_known(name, sequence)))
            std::ignore = output_.remove(name); // takes room, and is written over if it stays
    }
}

// --- gathering ---------------------------------------------------------------------------------

void publisher::step(int64_t now_ms)
{
    step_begun_ms_ = boot_ms();
    if (!output_.is_there())
        reopen_output(now_ms);
    if (!ladder_.is_full())
        ladder_.look(now_ms);
    for (const std::string& line : ladder_.take_lines())
        tell(line);
    peers_.look(p_, now_ms);
    for (const std::string& line : peers_.take_lines())
        tell(line);
    while (ladder_.has_row() && gathering_.planned.size() < most_planned)
        gather(ladder_.take_row(), now_ms);
    if (gathering_.splices_left_out() > 0 && !std::exchange(splices_told_, true))
        tell(
            fmt::format("{}: the lists have no room for more date ranges; new splices are not told",
                        settings_.output));
    if (gathered_since_ms_ < 0 && !gathering_.is_empty())
        gathered_since_ms_ = now_ms;

    // What there is of a segment is better than a wait, for a player that waits already.
    if (!gathering_.is_empty() && gathering_.planned.empty() && late_at_ms() >= 0 &&
        now_ms >= late_at_ms())
        gathering_.close();

    if (retry_ms_ < 0 || now_ms >= retry_ms_) {
        retry_ms_ = -1;
        if (store_.is_open() || reopen_state(now_ms))
            publish_planned(now_ms);
        if (playlists_are_old_)
            write_playlists(now_ms);
    }
    remove_due(now_ms);
    if (!unswept_.empty()) {
        remove_leftovers_of(unswept_.back());
        output_.remove_folder(unswept_.back()); // if nothing is left in it
        unswept_.pop_back();
    }
}

// A segment that ends early would be another one than the peers'.
int64_t publisher::late_at_ms() const
{
    if (is_numbered_by_stream())
        return -1;
    const int64_t since_ms = newest_ms_ < 0 ? gathered_since_ms_ : newest_ms_;
    return since_ms < 0 ? -1 : since_ms + late_ms_per_second * p_.target_duration;
}

int64_t publisher::next_step_ms(int64_t now_ms) const
{
    int64_t next = idle_ms;
    if (!unswept_.empty())
        next = sweep_ms;
    if (!gathering_.is_empty() && late_at_ms() > now_ms)
        next = std::min(next, late_at_ms() - now_ms);
    const int64_t look_again_ms = ladder_.look_again_ms(now_ms);
    if (look_again_ms >= 0 && !ladder_.is_full())
        next = std::min(next, look_again_ms);
    next = sooner(next, peers_.look_again_ms(p_, now_ms));
    if (ladder_.has_row() && retry_ms_ < 0)
        next = 0;
    if (retry_ms_ >= 0)
        next = std::min(next, std::max<int64_t>(retry_ms_ - now_ms, 0));
    return next;
}

void publisher::gather(row next, int64_t now_ms)
{
    for (size_t i = 0; i < next.rungs.size(); i++) {
        for (const chosen_gop& chosen : next.rungs[i])
            note(i, chosen);
    }
    if (is_numbered_by_stream() && !half_turn_told_ &&
        is_ambiguous(next.start, unix_ms() * pts_ticks_per_millisecond)) {
        half_turn_told_ = true;
        tell("the stream's clock is half a turn from the time of day; a publisher that starts "
             "without a peer may number the same segments otherwise");
    }
    if (!settings_.peers.empty() && retry_ms_ < 0 && store_.is_open() &&
        gathering_.is_cut_off(next))
        find_place_again(now_ms);
    gathering_.add(std::move(next));
}

void publisher::note(size_t rung, const chosen_gop& chosen)
{
    rung_report& report = reports_[rung];
    const source_gop& next = chosen.gop;
    report.counts.count_source_gop(ladder_.sources(rung).path(chosen.source));
    report.counts.count_gop(static_cast<double>(next.length) / pts_ticks_per_second,
                            next.what.continuity_errors, next.what.transport_errors);
    if (!next.what.keyframe) {
        report.counts.count_split_gop();
        if (!report.split_told)
            tell(fmt::format("{}: no keyframe for {} s; segments begin without one",
                             next.file->name, p_.target_duration));
    }
    report.split_told = !next.what.keyframe;
}

// --- publishing --------------------------------------------------------------------------------

// Numbers never skip within a list.
segment& publisher::listed_at(uint64_t sequence)
{
    return p_.listed[static_cast<size_t>(sequence - p_.listed.front().sequence)];
}

void publisher::publish_planned(int64_t now_ms)
{
    while (!gathering_.planned.empty()) {
        if (!publish_one(gathering_.planned.front(), now_ms))
            return;
        gathering_.planned.pop_front();
    }
}

// What comes at once, as behind a time away, stays listed until players have seen it, as far as
// there is room for it, and an hour of it at most: lists may be what cannot be written.
size_t publisher::count_of_leaving(int64_t now_ms) const
{
    uint64_t seen = 0;
    for (const written_list& list : written_) {
        if (list.ms <= now_ms - 1000 * p_.target_duration)
            seen = list.next_sequence;
    }
    list_limits limits{.window = settings_.window, .bytes = settings_.most_bytes};
    const uint64_t bytes = listed_bytes_ + bytes_of(p_.listed.back()); // which is not saved yet
    size_t leaving = segments_to_retire(p_, limits, bytes);
    while (leaving > 0 && p_.listed[leaving - 1].sequence >= seen)
        leaving--;
    limits.window = settings_.window + longest_unseen;
    return std::max(leaving, segments_to_retire(p_, limits, bytes));
}

// What is saved with a segment that is listed already. It takes from the list what leaves it.
state_step publisher::step_with(const made_segment& made, const planned_segment& plan,
                                int64_t now_ms)
{
    state_step step{.head = head_, .added = {}, .retired = {}, .removed = {}};
    step.head.next_sequence = made.what.sequence + 1;
    step.head.discontinuities = made.what.discontinuity_number;
    step.head.line = plan.behind;
    step.head.rungs = plan.places;
    for (const uint64_t sequence : made.filled) // some of which may leave
        step.added.push_back(listed_at(sequence));
    // A list has no holes: it begins anew behind one.
    const size_t count = p_.listed.size();
    const bool is_anew = count > 1 && p_.listed[count - 2].sequence + 1 != made.what.sequence;
    step.retired = leave_list(is_anew ? count - 1 : count_of_leaving(now_ms));
    p_.listed.back().list_duration = listed_duration(p_);
    step.added.push_back(p_.listed.back());
    drop_past(step.head.line.ranges, p_.listed.front().date);
    return step;
}

// With what the state does not have yet of what left the list before.
bool publisher::save(state_step& step, std::string& error)
{
    const size_t leaving = step.retired.size();
    retired_.tell(step);
    const bool is_saved = store_.save(step, error);
    if (is_saved)
        retired_.note_saved();
    step.retired.resize(leaving);
    return is_saved;
}

// The oldest segments, so many.
std::vector<retired_segment> publisher::leave_list(size_t count)
{
    const int64_t longest = longest_list(p_);
    std::vector<retired_segment> leaving;
    for (size_t i = 0; i < count; i++) {
        const int64_t hold = availability(p_.listed.front(), longest) / pts_ticks_per_millisecond;
        leaving.push_back({.what = std::move(p_.listed.front()), .due_ms = 0, .hold_ms = hold});
        p_.listed.pop_front();
    }
    return leaving;
}

// Of a segment that is made again.
void publisher::take_back_fills(const made_segment& made)
{
    for (const uint64_t sequence : made.filled)
        listed_at(sequence).files.pop_back();
}

// False: it is to be tried again.
bool publisher::publish_one(const planned_segment& plan, int64_t now_ms)
{
    // What a peer has whole, it need not have from here with something missing.
    if (plan.is_incomplete && peers_.have(plan.number))
        return true;
    tell_misfit(plan);
    made_segment made{
        .what =
            {
                .sequence = plan.number != 0 ? plan.number : p_.next_sequence,
                .discontinuity_number = p_.discontinuities,
                .discontinuity = plan.at.discontinuity || hole_,
                .independent = is_independent(plan),
                .in_folder = settings_.in_folders,
                .duration = plan.duration,
                .date = plan.at.date,
                .files = {},
            },
        .shared = {},
        .linked = {},
        .filled = {},
        .languages = {},
        .cues = {},
    };
    segment& s = made.what;
    if (s.discontinuity)
        s.discontinuity_number++;

    const auto rungs_before = listed_rungs(p_);
    const making result = files_.make(plan, made, p_);
    for (const std::string& line : files_.take_lines())
        tell(line);
    if (result == making::source_failed) {
        hole_ = !is_numbered_by_stream(); // there a number is left out
        return true;
    }
    if (result == making::failed) {
        take_back_fills(made);
        fail(fmt::format("{}/{}", settings_.output, files_.failure()), now_ms);
        return false;
    }
    if (!links_told_ && !output_.why_no_links().empty()) {
        tell(fmt::format("{}: fragments cannot be linked here ({}); they are copied",
                         settings_.output, output_.why_no_links()));
        links_told_ = true;
    }

    std::string error;
    if (settings_.in_folders && !output_.flush(names_of(s), error)) {
        take_back_fills(made);
        fail(fmt::format("{}/{}", settings_.output, error), now_ms);
        return false;
    }

    // Nothing is copied that stays as it is: a day is a long list.
    p_.listed.push_back(s);
    state_step step = step_with(made, plan, now_ms);
    master_facts master = updated_master(p_, plan, rungs_, made.shared);
    if (master != p_.master)
        step.master = &master;
    if (!save(step, error)) {
        p_.listed.pop_back();
        for (auto r = step.retired.rbegin(); r != step.retired.rend(); ++r)
            p_.listed.push_front(std::move(r->what));
        take_back_fills(made);
        fail(fmt::format("{}: {}", settings_.state, error), now_ms);
        return false;
    }
    files_.go_on_behind(made);
    listed_bytes_ += bytes_of(s);
    for (const retired_segment& r : step.retired)
        listed_bytes_ -= bytes_of(r.what);
    retired_.add(std::move(step.retired));
    if (!made.filled.empty())
        count_listed_bytes();
    p_.next_sequence = step.head.next_sequence;
    p_.discontinuities = step.head.discontinuities;
    p_.ranges = step.head.line.ranges;
    if (step.master != nullptr)
        p_.master = std::move(master);
    head_ = std::move(step.head);
    ladder_.forget_behind(head_.rungs);
    gathering_.forget_splices(p_.listed.front().date);
    hole_ = false;
    count(plan, made);
    tell_fullness();
    const auto rungs_now = listed_rungs(p_);
    tell_changes(rungs_before, rungs_now);
    playlists_are_old_ = true;
    master_is_old_ = master_is_old_ || step.master != nullptr || rungs_now != rungs_before;
    return true;
}

void publisher::tell_misfit(const planned_segment& plan)
{
    if (plan.is_misfit && !std::exchange(misfit_told_, true))
        tell(fmt::format("segment {} does not begin where the stream's time has it: keyframes must "
                         "come at least every {} s, and the target duration leave room for a group "
                         "of pictures more",
                         plan.number, settings_.segment));
}

void publisher::count(const planned_segment& plan, const made_segment& made)
{
    const segment& s = made.what;
    delivered_segment delivered{
        .sequence = s.sequence, .date = s.date, .duration = s.duration, .rungs = {}};
    uint64_t shared_bytes = 0;
    for (const segment_file& file : s.files)
        shared_bytes += contains(rungs_, file.track) ? 0 : file.bytes;
    for (const segment_file& file : s.files) {
        const auto rung = std::find(rungs_.begin(), rungs_.end(), file.track);
        if (rung == rungs_.end())
            continue;
        const auto i = static_cast<size_t>(rung - rungs_.begin());
        rung_report& report = reports_[i];
        // What all share counts with the first.
        report.counts.count_segment(made.linked[i], file.bytes + std::exchange(shared_bytes, 0),
                                    static_cast<double>(s.duration) / pts_ticks_per_second);
        if (s.discontinuity)
            report.counts.count_discontinuity();
        report.unlisted_since.push_back(plan.rungs[i].back().seen_ms);
        delivered_rung& from = delivered.rungs.emplace_back();
        from.name = rungs_[i];
        for (const size_t source : plan.sources[i])
            from.sources.push_back(ladder_.sources(i).path(source));
    }
    delivered_.push_back(std::move(delivered));
    if (delivered_.size() > most_delivered)
        delivered_.pop_front();
    segments_are_unlisted_ = true;
}

// What the bytes allow is less than what was asked for.
void publisher::tell_fullness()
{
    if (fullness_told_ || retired_.bytes() <= room_for_retired())
        return;
    const int64_t listed = listed_duration(p_) / pts_ticks_per_second;
    if (listed + p_.target_duration >= settings_.window)
        return;
    tell(fmt::format("{}: {} bytes are full with {} s listed, and {} s are wanted; the oldest "
                     "segments leave",
                     settings_.output, settings_.most_bytes, listed, settings_.window));
    fullness_told_ = true;
}

// So many bytes may what has left the list have, so that there is room for another segment like the
// newest.
uint64_t publisher::room_for_retired() const
{
    if (settings_.most_bytes == 0 || p_.listed.empty())
        return UINT64_MAX;
    const uint64_t needed = listed_bytes_ + bytes_of(p_.listed.back());
    return settings_.most_bytes > needed ? settings_.most_bytes - needed : 0;
}

// A rung that is in none of the segments yet is no news.
void publisher::tell_changes(const std::vector<std::string>& before,
                             const std::vector<std::string>& now) const
{
    for (const std::string& name : before) {
        if (!contains(now, name))
            tell(fmt::format("{}: it has fallen behind or delivers nothing; it is taken out of {}",
                             name, settings_.playlist));
    }
    for (const std::string& name : now) {
        if (!before.empty() && !contains(before, name))
            tell(fmt::format("{}: it is in {} again", name, settings_.playlist));
    }
}

const listed_lines& publisher::follow(const std::string& playlist, const listed_lines& anew)
{
    listed_lines& lines = lines_.try_emplace(playlist, anew).first->second;
    lines.follow(p_);
    return lines;
}

bool publisher::is_shared(const std::string& track) const
{
    return std::any_of(p_.master.shared.begin(), p_.master.shared.end(),
                       [&track](const ::track& t) { return t.name == track; });
}

bool publisher::is_held_back() const
{
    return !p_.ended && peers_.have_more(p_);
}

// All renditions change together, and the master playlist, which names them, comes last.
void publisher::write_playlists(int64_t now_ms)
{
    const auto listed = listed_rungs(p_);
    if (listed.empty() || is_held_back()) // a list of nothing, or of no rung, ends players
        return;
    std::vector<std::pair<std::string, std::string>> texts;
    // First, so that they never lack what the leads have, from which a lost state is told.
    for (const std::string& rung : listed) {
        const std::string name = iframe_playlist_name(rung);
        std::string iframes = iframe_playlist_text(p_, follow(name, iframe_playlist_lines(rung)));
        if (!iframes.empty())
            texts.emplace_back(name, std::move(iframes));
    }
    const auto add = [&](const std::string& track) {
        const std::string name = media_playlist_name(track);
        const listed_lines& lines = follow(name, media_playlist_lines(track));
        texts.emplace_back(name, media_playlist_text(p_, lines));
    };
    for (const std::string& name : listed)
        add(name);
    for (const track& t : p_.master.shared)
        add(t.name);
    std::erase_if(lines_, [this, &listed](const auto& kept) { // of what is gone
        const std::string& track = kept.second.track();
        return is_lead(track) ? !contains(listed, track) : !is_shared(track);
    });
    if (master_is_old_)
        texts.emplace_back(settings_.playlist, master_playlist_text(p_));
    std::string error;
    if (!output_.replace_texts(texts, error)) {
        fail(fmt::format("{}/{}", settings_.output, error), now_ms);
        return;
    }
    if (master_is_old_)
        remove_gone_playlists(listed);
    if (!trouble_.empty() && gathering_.planned.empty()) {
        tell("publishing again");
        trouble_.clear();
        retry_ms_ = -1;
    }
    const int64_t written_ms = boot_ms();
    retired_.begin_times(p_.listed.front().sequence, now_ms + written_ms - step_begun_ms_);
    written_.push_back({.next_sequence = p_.next_sequence, .ms = now_ms});
    while (written_.size() > 1 && written_[1].ms <= now_ms - 1000 * p_.target_duration)
        written_.pop_front();
    for (rung_report& report : reports_) {
        for (const int64_t seen_ms : std::exchange(report.unlisted_since, {})) {
            report.counts.observe_delay(static_cast<double>(written_ms - seen_ms) / 1000);
            report.newest_ms = now_ms;
        }
    }
    if (std::exchange(segments_are_unlisted_, false))
        newest_ms_ = now_ms;
    playlists_are_old_ = false;
    master_is_old_ = false;
}

// A player waits for good at a list that stands still. Without it, it looks for another rung or
// track.
void publisher::remove_gone_playlists(const std::vector<std::string>& listed) const
{
    for (const std::string& name : rungs_) {
        if (!contains(listed, name))
            std::ignore = output_.remove(media_playlist_name(name)); // or with the next master
    }
    for (const char* part : {"audio", "sap"}) {
        const std::string name = shared_track_name(rungs_.front(), part);
        if (!is_shared(name))
            std::ignore = output_.remove(media_playlist_name(name)); // or with the next master
    }
    for (const rung_facts& rung : p_.master.rungs) {
        if (rung.keyframe_peak_bandwidth == 0 || !contains(listed, rung.name))
            std::ignore = output_.remove(iframe_playlist_name(rung.name)); // the same
    }
}

void publisher::remove_due(int64_t now_ms)
{
    retired_.remove_due(now_ms, room_for_retired());
    for (const std::string& line : retired_.take_lines()) {
        tell(fmt::format("{}/{}", settings_.output, line));
        reports_.front().counts.count_failed_step();
    }
}

// Someone removed the directory. Its segments are gone, so the list begins anew behind them, with
// the numbers that follow.
void publisher::reopen_output(int64_t now_ms)
{
    std::string error;
    if (!output_.open(settings_.output, error)) {
        fail(error, now_ms);
        return;
    }
    tell(fmt::format("{} was removed; the presentation goes on in a new one with segment {}",
                     settings_.output, p_.next_sequence));
    p_.listed.clear();
    retired_.take_up({});
    written_.clear();
    listed_bytes_ = 0;
    master_is_old_ = true;
    store_.close();
}

// It may have gone with the directory, or stand elsewhere and tell of segments that have. False: it
// is to be tried again.
bool publisher::reopen_state(int64_t now_ms)
{
    std::string error;
    stored_state found;
    const state_opening opening =
        store_.open(settings_.state, identity_of(settings_), found, error);
    state_step forget{.head = head_, .added = {}, .retired = {}, .removed = {}};
    for (const segment& s : found.listed)
        forget.removed.push_back(s.sequence);
    for (const retired_segment& r : found.retired)
        forget.removed.push_back(r.what.sequence);
    forget.master = &p_.master;
    if ((opening == state_opening::fresh || opening == state_opening::resumed) &&
        store_.save(forget, error))
        return true;
    store_.close();
    fail(fmt::format("{}: {}", settings_.state, error), now_ms);
    return false;
}

// Until nothing new comes from the sources, however much they have. What a program that has just
// ended leaves is complete at once, but that nothing follows it takes its time to show.
void publisher::publish_the_rest()
{
    int64_t changed_ms = boot_ms();
    int64_t behind_ms = changed_ms; // when there was more than could be taken at once
    for (int64_t now_ms = changed_ms; now_ms - changed_ms < settled_ms; now_ms = boot_ms()) {
        if (now_ms - behind_ms >= most_settling_ms) {
            tell(fmt::format("{}: the sources go on; what they deliver from now on is left out",
                             settings_.output));
            break;
        }
        const timeline before = gathering_.line();
        step(now_ms);
        if (gathering_.line() != before)
            changed_ms = now_ms;
        if (changed_ms == now_ms && ladder_.has_row())
            behind_ms = now_ms;
        pollfd fetched{.fd = fetch_fd(), .events = POLLIN, .revents = 0};
        std::ignore = poll(&fetched, 1, settling_wait_ms); // whatever it says, it is looked again
        fetch();
    }
    if (!gathering_.is_empty())
        gathering_.close();
    publish_planned(boot_ms());
}

bool publisher::end(int64_t now_ms)
{
    if (!p_.ended)
        publish_the_rest();
    if (!gathering_.planned.empty()) // it has been told why
        return false;
    if (p_.listed.empty()) {
        tell(fmt::format("{}: there is nothing to end", settings_.output));
        return false;
    }
    p_.ended = true;
    head_.ended = true;
    std::string error;
    state_step step{.head = head_, .added = {}, .retired = {}, .removed = {}};
    if (!save(step, error)) {
        tell(fmt::format("{}: {}", settings_.state, error));
        return false;
    }
    write_playlists(now_ms);
    return !playlists_are_old_;
}

void publisher::change(const publisher_settings& wanted)
{
    std::string error;
    if (!may_change(settings_, wanted, error)) {
        tell("the configuration is not taken over: " + error);
        return;
    }
    settings_.segment = wanted.segment;
    settings_.window = wanted.window;
    settings_.in_folders = wanted.in_folders;
    settings_.most_bytes = wanted.most_bytes;
    fullness_told_ = false;
    gathering_.want(limits_of(settings_).wanted);
    tell("the configuration has been read again");
}

std::string publisher::metrics_text(int64_t now_ms)
{
    for (const peer_watch::peer_report& peer : peers_.report())
        reports_.front().counts.set_peer(peer.url, peer.up, !peer.difference.empty());
    const disk_room room = output_.room();
    const auto listed = listed_rungs(p_);
    reports_.front().counts.set_splices_left_out(gathering_.splices_left_out()); // of all rungs
    for (size_t i = 0; i < reports_.size(); i++) {
        metrics& counts = reports_[i].counts;
        const twin_sources& sources = ladder_.sources(i);
        bool all_up = true;
        for (size_t source = 0; source < sources.count(); source++) {
            const source_report& one = sources.report(source);
            all_up = all_up && one.there && !one.names_used_again;
            counts.set_source_refused(sources.path(source), sources.is_refused(source));
            if (const mirror_report* fetched = sources.fetched(source))
                counts.set_fetched(sources.path(source), *fetched);
        }
        const source_report all = sources.report();
        counts.set_source(all_up, all.runs, all.lost_fragments, all.unusable_fragments);
        const int64_t newest_ms = reports_[i].newest_ms;
        counts.set_newest_segment_age(
            static_cast<double>(now_ms - (newest_ms < 0 ? started_ms_ : newest_ms)) / 1000);
        counts.set_disk(room.free_bytes, room.bytes);
        counts.set_target_duration(p_.target_duration);
        const bool is_listed = contains(listed, rungs_[i]);
        const auto segments =
            is_listed ? segments_of(p_, rungs_[i]) : std::vector<const segment*>{};
        counts.set_listed_in_master(is_listed);
        counts.set_listed(segments.size(),
                          static_cast<double>(duration_of(segments)) / pts_ticks_per_second);
    }
    return ::metrics_text(*registry_);
}
