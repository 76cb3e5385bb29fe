#include "publisher/follow/source_mirror.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "publisher/base/clock.hpp"

namespace
{

constexpr long status_not_found = 404;
constexpr long status_gone = 410;

constexpr size_t most_text_bytes = most_playlist_bytes;

// A server that says that nothing has changed may be wrong: its entity tags often tell times in
// whole seconds.
constexpr int64_t whole_again_ms = 5000;

// Caches, and servers that share an address, give a list now and then that is older than the one
// before. What stays so for longer is a run that takes names again.
constexpr int64_t longest_older_ms = 5000;

constexpr int64_t first_back_off_ms = 250;
constexpr int64_t most_back_off_ms = 4000;
constexpr int64_t unwritable_wait_ms = 1000;
constexpr int most_tries = 3;

// Bounds for how long a fragment is taken to last.
constexpr int64_t least_fragment_ms = 400;
constexpr int64_t most_fragment_ms = 8000;

// Of a run that has ended, behind those that are listed.
constexpr int most_unlisted = 64;
// The segmenter keeps some fragments that it no longer lists.
constexpr uint64_t kept_before_list = 16;

// More than twins may lag. What was not published by then is still open, and is copied.
constexpr size_t most_spooled = 200;
constexpr uint64_t most_spooled_bytes = uint64_t{1} << 30;
constexpr size_t least_spooled = 2;

// Tells whose spool it is, and of which boot of the machine.
constexpr const char* marker_name = ".source";

bool is_missing(const http_result& result)
{
    return result.status == status_not_found || result.status == status_gone;
}

// The fragment that a file belongs to: also its subtitles, which have its name and more.
std::optional<fragment_name> fragment_of(std::string_view file)
{
    constexpr std::string_view suffix = ".ts";
    const size_t at = file.rfind(suffix);
    return at == std::string_view::npos ? std::nullopt
                                        : parse_fragment_name(file.substr(0, at + suffix.size()));
}

} // namespace

source_mirror::source_mirror(http_client& client, const http_settings& settings, std::string url,
                             std::string m3u8_name, std::string spool)
    : url_(url.ends_with('/') ? url : url + '/'), told_as_(std::move(url)),
      m3u8_name_(std::move(m3u8_name)), spool_path_(std::move(spool)), fetch_(client, settings)
{
}

void source_mirror::tell(const std::string& line)
{
    report.lines.push_back(told_as_ + ": " + line);
}

void source_mirror::resume(const source_position& position)
{
    position_ = position;
    base_ = position.base;
    next_ = position.number;
    last_ = position.last_listed;
}

// --- the spool ---------------------------------------------------------------------------------

bool source_mirror::open_spool(int64_t now_ms)
{
    if (spool_is_open_ && spool_.is_there())
        return true;
    std::string error;
    if (!spool_.open(spool_path_, error)) {
        cannot_write(error, now_ms);
        return false;
    }
    // Someone may have removed it.
    main_ = {};
    list_ = {};
    list_is_due_ = true;
    files_.clear();
    spooled_.clear();
    spooled_bytes_ = 0;
    if (!std::exchange(spool_is_open_, true))
        take_up_spool();
    if (!spool_.replace_texts({{marker_name, told_as_ + '\n' + boot_id() + '\n'}}, error)) {
        spool_is_open_ = false;
        cannot_write(error, now_ms);
    }
    return spool_is_open_;
}

// Leaves what an earlier process has fetched and not published.
void source_mirror::take_up_spool()
{
    const bool is_ours =
        spool_.read_text(marker_name, most_text_bytes) == told_as_ + '\n' + boot_id() + '\n';
    for (const std::string& name : spool_.names()) {
        const auto of = fragment_of(name);
        const bool is_wanted = of && position_ && of->number >= position_->number &&
                               stem_of(of->base) == stem_of(position_->base);
        if (!is_ours || is_unfinished_name(name) || !(is_wanted || name.ends_with(".m3u8")))
            std::ignore = spool_.remove(name); // is written over if it stays; not "." and ".."
    }
}

void source_mirror::remove_oldest()
{
    for (const std::string& name : spooled_.front().files)
        std::ignore = spool_.remove(name); // goes with the spool at the latest
    spooled_bytes_ -= spooled_.front().bytes;
    spooled_.pop_front();
}

// The fragment before the place is read again when a later process begins.
void source_mirror::remove_behind(const source_position& position)
{
    while (!spooled_.empty()) {
        const fragment_name& oldest = spooled_.front().name;
        const bool is_behind = oldest.base == position.base ? oldest.number + 1 < position.number
                                                            : position.base == base_;
        if (!is_behind)
            return;
        remove_oldest();
    }
}

void source_mirror::limit_spool()
{
    while (spooled_.size() > least_spooled &&
           (spooled_.size() > most_spooled || spooled_bytes_ > most_spooled_bytes))
        remove_oldest();
}

bool source_mirror::store(const std::string& name, const std::string& text, int64_t now_ms)
{
    std::string error;
    if (spool_.replace_texts({{name, text}}, error))
        return true;
    cannot_write(error, now_ms);
    return false;
}

// --- asking ------------------------------------------------------------------------------------

void source_mirror::look(int64_t now_ms)
{
    look_again_ms_ = -1;
    while (!fetch_.is_running()) {
        if (asked_ != question::none)
            take_answer(now_ms);
        if (now_ms >= due_ms_ && open_spool(now_ms))
            ask_next(now_ms);
        if (now_ms < due_ms_) {
            look_again_ms_ = due_ms_ - now_ms;
            return;
        }
    }
}

void source_mirror::ask_next(int64_t now_ms)
{
    const bool has_two_levels = lead_ != m3u8_name_;
    if (lead_.empty() || (has_two_levels && main_is_due_)) {
        ask_for_playlist(question::main, m3u8_name_, main_, now_ms);
        return;
    }
    if (list_is_due_) {
        ask_for_playlist(question::list, lead_, list_, now_ms);
        return;
    }
    // What is left of the run before comes before the list of the next one.
    if (unlisted_left_ == 0 && list_is_kept_ && !put_list(now_ms))
        return;
    if (!ask_for_file(now_ms))
        rest(now_ms);
}

void source_mirror::ask_for_playlist(question what, const std::string& name,
                                     const remote_playlist& known, int64_t now_ms)
{
    const bool may_be_old = !known.text.empty() && now_ms - known.whole_ms < whole_again_ms;
    body_.clear();
    asked_ = what;
    report.requests++;
    fetch_.start(url_ + escaped_for_url(name), may_be_old ? known.validators : http_validators{},
                 most_text_bytes, [this](std::span<const uint8_t> bytes) {
                     body_.append(bytes.begin(), bytes.end());
                     return true;
                 });
}

bool source_mirror::wants_file() const
{
    return !base_.empty() && (unlisted_left_ > 0 || next_ <= last_);
}

// What goes with a fragment comes before it.
std::vector<std::string> source_mirror::files_of(uint64_t number) const
{
    const std::string name = fragment_file_name({.base = base_, .number = number});
    std::vector<std::string> files{name};
    const std::string stem(stem_of(base_));
    if (master_.separate_audio && base_ == stem + ".v") {
        files.push_back(fragment_file_name({.base = stem + ".a", .number = number}));
        if (master_.secondary_audio)
            files.push_back(fragment_file_name({.base = stem + ".sap", .number = number}));
    }
    for (const source_subtitles& subtitles : master_.subtitles)
        files.push_back(subtitle_file_name(name, subtitles.language));
    return files;
}

// False: there is none to ask for.
bool source_mirror::ask_for_file(int64_t now_ms)
{
    while (wants_file()) {
        if (files_.empty()) {
            files_ = files_of(next_);
            hand_ = {.name = {.base = base_, .number = next_}, .files = {}, .bytes = 0};
        }
        const std::string& name = files_.back();
        const int64_t size = spool_.size_of(name);
        if (size >= 0) { // of an earlier process
            have_file(static_cast<uint64_t>(size));
            continue;
        }
        file_ = spool_.begin_file(name);
        if (!file_) {
            cannot_write(fmt::format("{}: {}", name, std::strerror(errno)), now_ms);
            return true;
        }
        asked_ = question::file;
        report.requests++;
        fetch_.start(url_ + escaped_for_url(name), {}, most_fragment_bytes,
                     [this](std::span<const uint8_t> bytes) {
                         const bool written = write_fully(file_.get(), bytes);
                         write_error_ = written ? 0 : errno;
                         return written;
                     });
        return true;
    }
    return false;
}

// Another fragment comes when this one is as old as it lasts; then it is asked for more often. A
// source that stands still is asked less often again.
void source_mirror::rest(int64_t now_ms)
{
    const int64_t fragment_ms = std::clamp(listed_.newest_ms, least_fragment_ms, most_fragment_ms);
    list_is_due_ = true;
    const int64_t age_ms = now_ms - changed_ms_;
    if (age_ms > 3 * fragment_ms)
        due_ms_ = now_ms + fragment_ms / 2;
    else if (grown_by_ == 1)
        due_ms_ = std::max(changed_ms_ + fragment_ms * 3 / 4, now_ms + fragment_ms / 8);
    else
        due_ms_ = now_ms + fragment_ms / 8;
}

// --- answers -----------------------------------------------------------------------------------

void source_mirror::take_answer(int64_t now_ms)
{
    const question what = std::exchange(asked_, question::none);
    const http_result& result = fetch_.result();
    report.bytes += result.bytes;
    if (what == question::file) {
        take_file(now_ms);
        return;
    }
    remote_playlist& known = what == question::main ? main_ : list_;
    const bool is_same = result.status == http_not_modified && !known.text.empty();
    if (result.status != http_ok && !is_same) {
        const std::string& name = what == question::main ? m3u8_name_ : lead_;
        fail(fmt::format("{}: {}", name, reason_of(result)), now_ms);
        if (is_missing(result))
            lead_.clear();
        return;
    }
    if (!is_same) {
        known.validators = result.validators;
        known.whole_ms = now_ms;
    }
    const bool is_another = !is_same && body_ != known.text;
    if (is_another)
        known.text = std::move(body_);
    if (what == question::main)
        take_main(is_another, now_ms);
    else
        take_list(is_another, now_ms);
}

void source_mirror::take_main(bool is_another, int64_t now_ms)
{
    main_is_due_ = false;
    if (!is_master_playlist(main_.text)) {
        lead_ = m3u8_name_;
        list_ = std::exchange(main_, {});
        master_ = {};
        take_list(true, now_ms);
        return;
    }
    if (is_another && !store(m3u8_name_, main_.text, now_ms)) {
        main_ = {};
        main_is_due_ = true;
        return;
    }
    master_ = parse_source_master(main_.text);
    if (master_.lead != lead_) {
        lead_ = master_.lead;
        list_ = {};
        list_is_due_ = true;
    }
    if (lead_.empty())
        fail(fmt::format("{}: it names no playlist", m3u8_name_), now_ms);
}

void source_mirror::take_list(bool is_another, int64_t now_ms)
{
    list_is_due_ = false;
    if (lead_ == m3u8_name_ && is_master_playlist(list_.text)) { // since a run has begun
        lead_.clear();
        list_ = {};
        list_is_due_ = true;
        back_off(now_ms); // it may name itself
        return;
    }
    report.there = true;
    back_off_ms_ = 0;
    if (!std::exchange(trouble_, "").empty())
        tell("it answers again");
    if (!is_another && older_since_ms_ < 0)
        return;
    source_media_playlist answer = parse_source_media(list_.text);
    if (is_older(answer)) {
        if (older_since_ms_ < 0)
            older_since_ms_ = now_ms;
        if (now_ms - older_since_ms_ < longest_older_ms)
            return;
    }
    older_since_ms_ = -1;
    listed_ = std::move(answer);
    listed_text_ = list_.text;
    list_is_kept_ = true;
    main_is_due_ = true;
    changed_ms_ = now_ms;
    grown_by_ = 0;
    if (listed_.fragments.empty())
        return;
    const fragment_name& newest = listed_.fragments.back();
    if (newest.base != base_) {
        unlisted_left_ = base_.empty() ? 0 : most_unlisted;
    } else if (newest.number < last_) { // what follows the list sees that too, and tells it
        reused_base_ = base_;
        base_.clear();
        files_.clear();
    } else {
        grown_by_ = newest.number - last_;
        last_ = newest.number;
        skip_to(first_listed(base_));
    }
}

bool source_mirror::is_older(const source_media_playlist& list) const
{
    if (list.fragments.empty())
        return false;
    const fragment_name& newest = list.fragments.back();
    return newest.base == base_ ? newest.number < last_ : newest.base == former_base_;
}

uint64_t source_mirror::first_listed(const std::string& base) const
{
    const auto first = std::find_if(listed_.fragments.begin(), listed_.fragments.end(),
                                    [&base](const fragment_name& f) { return f.base == base; });
    return first->number;
}

// Those far before the list are gone.
void source_mirror::skip_to(uint64_t first)
{
    if (next_ + kept_before_list >= first)
        return;
    next_ = first - kept_before_list;
    files_.clear();
}

// What follows the spool reads the list from now on.
bool source_mirror::put_list(int64_t now_ms)
{
    if (!store(lead_, listed_text_, now_ms))
        return false;
    list_is_kept_ = false;
    if (listed_.fragments.empty())
        return true;
    const fragment_name& newest = listed_.fragments.back();
    if (newest.base == base_ || newest.base == reused_base_)
        return true;
    // What follows the list of an earlier run is no older than that.
    former_base_ = newest.base == former_base_ ? std::string() : base_;
    base_ = newest.base;
    reused_base_.clear();
    next_ = first_listed(base_);
    last_ = newest.number;
    files_.clear();
    return true;
}

void source_mirror::take_file(int64_t now_ms)
{
    const http_result& result = fetch_.result();
    const std::string name = files_.empty() ? "" : files_.back();
    if (result.status == http_ok) {
        if (!spool_.finish_file(name, std::move(file_))) {
            cannot_write(fmt::format("{}: {}", name, std::strerror(errno)), now_ms);
            return;
        }
        write_trouble_.clear();
        if (files_.size() == 1) {
            report.fragments++;
            report.fragment_seconds += result.seconds;
        }
        have_file(result.bytes);
        return;
    }
    file_.reset();
    std::ignore = spool_.remove(unfinished_name(name)); // is written over if it stays
    if (result.was_not_taken) {
        cannot_write(fmt::format("{}: {}", name, std::strerror(write_error_)), now_ms);
        return;
    }
    if (is_missing(result) && files_.size() > 1) {
        files_.pop_back(); // not every fragment has everything
        return;
    }
    if (is_missing(result)) {
        skip_fragment();
        return;
    }
    report.failures++;
    if (++failed_tries_ < most_tries) {
        back_off(now_ms);
        list_is_due_ = true; // tells whether it is the server, or this file
        return;
    }
    tell(fmt::format("{}: {}; it is left out", name, reason_of(result)));
    skip_fragment();
}

void source_mirror::have_file(uint64_t bytes)
{
    hand_.files.push_back(std::move(files_.back()));
    hand_.bytes += bytes;
    files_.pop_back();
    if (!files_.empty())
        return;
    spooled_bytes_ += hand_.bytes;
    spooled_.push_back(std::move(hand_));
    limit_spool();
    failed_tries_ = 0;
    next_++;
    unlisted_left_ = std::max(unlisted_left_ - 1, 0);
}

// Behind the last fragment of a run there is none. Where a list leaves many numbers out, one that
// is missing speaks for all of them.
void source_mirror::skip_fragment()
{
    for (const std::string& name : hand_.files)
        std::ignore = spool_.remove(name); // goes with the spool at the latest
    files_.clear();
    failed_tries_ = 0;
    next_++;
    const auto later = std::find_if(
        listed_.fragments.begin(), listed_.fragments.end(),
        [this](const fragment_name& f) { return f.base == base_ && f.number >= next_; });
    if (later != listed_.fragments.end() && std::cmp_greater(later->number - next_, most_unlisted))
        next_ = later->number;
    unlisted_left_ = 0;
}

// --- trouble -----------------------------------------------------------------------------------

void source_mirror::back_off(int64_t now_ms)
{
    back_off_ms_ = std::clamp(2 * back_off_ms_, first_back_off_ms, most_back_off_ms);
    due_ms_ = now_ms + back_off_ms_;
}

void source_mirror::fail(const std::string& what, int64_t now_ms)
{
    report.failures++;
    report.there = false;
    if (std::exchange(trouble_, what) != what)
        tell(what);
    back_off(now_ms);
}

void source_mirror::cannot_write(const std::string& what, int64_t now_ms)
{
    if (std::exchange(write_trouble_, what) != what)
        tell("the spool: " + what);
    due_ms_ = now_ms + unwritable_wait_ms;
}
