#include "publisher/record/recording.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "publisher/base/files.hpp"
#include "publisher/text/date_range.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr std::string_view journal_prefix = ".recording.";
constexpr std::string_view first_tag = "#EXTM3U\n";
constexpr std::string_view discontinuity_tag = "#EXT-X-DISCONTINUITY\n";
constexpr std::string_view independent_tag = "#EXT-X-INDEPENDENT-SEGMENTS\n";
constexpr size_t most_playlist_bytes = size_t{64} << 20;
constexpr size_t most_range_bytes = size_t{4} << 20; // tens of thousands
constexpr mode_t file_mode = 0644;

// Dates are told in milliseconds and durations more exactly, so that what goes on may seem not to.
constexpr int64_t same_time = 10 * pts_ticks_per_millisecond;

std::string journal_name(const std::string& list)
{
    return std::string(journal_prefix) + list;
}

// A file beside the playlist that names it, and not one that is hidden.
bool is_shown_name(std::string_view name)
{
    return is_file_name(name) && name.front() != '.';
}

// The same, or one in a folder beside the playlist.
bool is_segment_name(std::string_view name)
{
    const size_t slash = name.find('/');
    return slash == std::string_view::npos
               ? is_shown_name(name)
               : is_shown_name(name.substr(0, slash)) && is_shown_name(name.substr(slash + 1));
}

// The media playlists that a master playlist names, in its order, variants first.
std::vector<std::string> lists_of(std::string_view master)
{
    constexpr std::string_view uri = "URI=\"";
    std::vector<std::string> variants;
    std::vector<std::string> others;
    const auto add = [](std::vector<std::string>& to, std::string_view name) {
        if (is_shown_name(name) && std::find(to.begin(), to.end(), name) == to.end())
            to.emplace_back(name);
    };
    for (size_t end = master.find('\n'); end != std::string_view::npos; end = master.find('\n')) {
        const std::string_view line = master.substr(0, end);
        master.remove_prefix(end + 1);
        const size_t at = line.find(uri);
        if (!line.starts_with('#'))
            add(variants, line);
        else if (at != std::string_view::npos)
            add(others,
                line.substr(at + uri.size(), line.find('"', at + uri.size()) - at - uri.size()));
    }
    variants.insert(variants.end(), others.begin(), others.end());
    return variants;
}

std::string without(std::string text, std::string_view part)
{
    const size_t at = text.find(part);
    if (at != std::string::npos)
        text.erase(at, part.size());
    return text;
}

size_t count(std::string_view text, std::string_view part)
{
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string_view::npos;
         at = text.find(part, at + part.size()))
        found++;
    return found;
}

std::string newest_header(const media_list& journal)
{
    const size_t begin = journal.header.rfind(first_tag);
    return journal.header.substr(begin == std::string::npos ? 0 : begin);
}

// Behind the bytes that are whole: what a kill or a full disk has torn there is cut off.
bool write_behind(int directory, const std::string& name, uint64_t whole, const std::string& text)
{
    const descriptor out(
        openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, file_mode));
    const auto offset = static_cast<off_t>(whole);
    return out && ftruncate(out.get(), offset) == 0 &&
           pwrite(out.get(), text.data(), text.size(), offset) == static_cast<ssize_t>(text.size());
}

} // namespace

bool recording::open(std::string& error)
{
    if (!output_.open(settings_.to, error))
        return false;
    if (output_.size_of(settings_.playlist) >= 0) {
        error = fmt::format("{}/{} is there: this recording is complete", settings_.to,
                            settings_.playlist);
        return false;
    }
    master_ = output_.read_text(journal_name(settings_.playlist), most_playlist_bytes);
    for (const std::string& name : lists_of(master_))
        std::ignore = journal_of(name);
    if (settings_.begin == whenever && !journals_.empty())
        settings_.begin = journals_.front().begin;
    return true;
}

// What a recording that was killed left of it is taken up.
recording::track_journal& recording::journal_of(const std::string& name)
{
    const auto found = std::find_if(journals_.begin(), journals_.end(),
                                    [&name](const track_journal& j) { return j.name == name; });
    if (found != journals_.end())
        return *found;
    track_journal& journal = journals_.emplace_back();
    journal.name = name;
    const media_list taken = taken_of(journal);
    if (!taken.header.empty())
        journal.header = newest_header(taken);
    journal.bytes = taken.header.size();
    for (const listed_segment& listed : taken.segments)
        journal.bytes += listed.text.size();
    for (const listed_range& range : taken.date_ranges) {
        journal.bytes += range.text.size();
        journal.range_bytes += range.text.size();
        journal.date_ranges.insert(range.text);
    }
    if (!taken.segments.empty()) {
        journal.begin = taken.segments.front().date;
        journal.last = taken.segments.back().date;
        journal.end = journal.last + taken.segments.back().duration;
    }
    return journal;
}

media_list recording::taken_of(const track_journal& journal) const
{
    return parse_media_list(output_.read_text(journal_name(journal.name), most_playlist_bytes));
}

recording_state recording::step(std::string& error)
{
    // The directory may have been made anew under its path.
    live_ = std::make_shared<descriptor>(
        ::open(settings_.from.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string master = read_text(live_->get(), settings_.playlist, most_playlist_bytes);
    const std::vector<std::string> names = lists_of(master);
    if (names.empty()) {
        error = fmt::format("{}/{} names no playlist", settings_.from, settings_.playlist);
        return recording_state::failed;
    }

    bool all_begun = true;
    recording_state state = recording_state::going_on;
    for (const std::string& name : names) {
        const media_list list =
            parse_media_list(read_text(live_->get(), name, most_playlist_bytes));
        if (settings_.begin == whenever && !list.segments.empty())
            settings_.begin = list.segments.back().date;
        track_journal& journal = journal_of(name);
        if (!take_list(journal, list, error))
            return recording_state::failed;
        all_begun = all_begun && journal.begin != whenever;
        if (name != names.front() || list.segments.empty())
            continue;
        const int64_t told = list.segments.back().date + list.segments.back().duration;
        if (list.ended || (settings_.end != whenever && told >= settings_.end))
            state = recording_state::complete;
    }
    if (all_begun && master != master_) {
        if (!output_.replace_texts({{journal_name(settings_.playlist), master}}, error))
            return recording_state::failed;
        master_ = master;
    }
    return state;
}

bool recording::take_list(track_journal& journal, const media_list& list, std::string& error)
{
    if (list.segments.empty())
        return true;
    if (list.header != journal.header) {
        if (!write_journal(journal, list.header, error))
            return false;
        journal.header = list.header;
    }
    for (const listed_range& range : list.date_ranges) {
        if (!take_range(journal, range.text, error))
            return false;
    }
    for (const listed_segment& listed : list.segments) {
        const bool is_early = listed.date + listed.duration <= settings_.begin;
        const bool is_taken = journal.last != whenever && listed.date <= journal.last + same_time;
        if (settings_.end != whenever && listed.date >= settings_.end)
            break;
        if (!is_early && !is_taken && !take_segment(journal, listed, error))
            return false;
    }
    return true;
}

bool recording::take_range(track_journal& journal, const std::string& line, std::string& error)
{
    if (journal.date_ranges.contains(line))
        return true;
    if (journal.range_bytes + line.size() > most_range_bytes) {
        if (!std::exchange(journal.is_full_told, true))
            std::fprintf(stderr,
                         "%s: its date ranges are too many; those from now on are left out\n",
                         journal.name.c_str());
        return true;
    }
    if (!write_journal(journal, line, error))
        return false;
    journal.range_bytes += line.size();
    journal.date_ranges.insert(line);
    return true;
}

bool recording::take_segment(track_journal& journal, const listed_segment& listed,
                             std::string& error)
{
    std::string text = listed.text;
    // A list has a hole without saying so where its recording was down for too long.
    if (journal.end != whenever && listed.date > journal.end + same_time && !listed.discontinuity) {
        std::fprintf(stderr, "%s: %.3f s are missing before %s\n", journal.name.c_str(),
                     static_cast<double>(listed.date - journal.end) / pts_ticks_per_second,
                     listed.uri.c_str());
        text = std::string(discontinuity_tag) + text;
    }
    switch (link(listed.uri, error)) {
    case linking::done:
        break;
    case linking::gone:
        return true;
    case linking::failed:
        return false;
    }
    if (!write_journal(journal, text, error))
        return false;
    journal.begin = journal.begin == whenever ? listed.date : journal.begin;
    journal.last = listed.date;
    journal.end = listed.date + listed.duration;
    return true;
}

bool recording::write_journal(track_journal& journal, const std::string& text,
                              std::string& error) const
{
    const std::string name = journal_name(journal.name);
    if (!write_behind(output_.fd(), name, journal.bytes, text)) {
        error = fmt::format("{}/{}: {}", settings_.to, name, std::strerror(errno));
        return false;
    }
    journal.bytes += text.size();
    return true;
}

// Several lists may name one file.
recording::linking recording::link(const std::string& name, std::string& error)
{
    if (is_segment_name(name) && output_.size_of(name) >= 0)
        return linking::done;
    source_file file{.fd = is_segment_name(name) ? open_file(live_->get(), name) : descriptor(),
                     .directory = live_,
                     .name = name};
    struct stat found {
    };
    if (!file.fd || fstat(file.fd.get(), &found) != 0) {
        std::fprintf(stderr, "%s/%s cannot be read\n", settings_.from.c_str(), name.c_str());
        return linking::gone;
    }
    file.device = found.st_dev;
    file.inode = found.st_ino;
    const source_range whole{
        .file = &file, .begin = 0, .end = static_cast<uint64_t>(found.st_size)};
    const made_file made = output_.make_segment(name, {}, {&whole, 1});
    if (made.how != made_by::failure)
        return linking::done;
    error = fmt::format("{}/{}", settings_.to, made.error);
    return linking::failed;
}

bool recording::is_even() const
{
    const std::vector<std::string> names = lists_of(master_);
    const auto end_of = [this](const std::string& name) {
        const auto found = std::find_if(journals_.begin(), journals_.end(),
                                        [&name](const track_journal& j) { return j.name == name; });
        return found == journals_.end() ? whenever : found->end;
    };
    return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        return end_of(name) + same_time >= end_of(names.front());
    });
}

bool recording::close(std::string& error)
{
    if (master_.empty()) {
        error = fmt::format("{}/{}: nothing of that time is listed", settings_.from,
                            settings_.playlist);
        return false;
    }
    std::vector<std::pair<std::string, std::string>> texts;
    std::set<std::string> named;
    const std::vector<std::string> names = lists_of(master_);
    const int64_t end = journal_of(names.front()).end - same_time;
    for (const std::string& name : names) {
        media_list taken = taken_of(journal_of(name));
        std::erase_if(taken.segments, [end](const auto& listed) { return listed.date >= end; });
        for (const listed_segment& listed : taken.segments)
            named.insert(listed.uri);
        texts.emplace_back(name, vod_text(taken));
    }
    texts.emplace_back(settings_.playlist, master_);
    if (!output_.replace_texts(texts, error)) {
        error = fmt::format("{}/{}", settings_.to, error);
        return false;
    }
    // What was taken beyond the end, or of a list that the presentation has no longer.
    for (const track_journal& journal : journals_) {
        for (const listed_segment& listed : taken_of(journal).segments) {
            if (named.contains(listed.uri))
                continue;
            std::ignore = output_.remove(listed.uri);
            output_.remove_folder(folder_in(listed.uri)); // if nothing is left in it
        }
        std::ignore = output_.remove(journal_name(journal.name));
    }
    std::ignore = output_.remove(journal_name(settings_.playlist));
    return true;
}

// A journal has every header that its list has had. The newest one holds, but not all segments are
// independent where they once were not.
std::string recording::vod_text(const media_list& taken) const
{
    std::string header = newest_header(taken);
    if (count(taken.header, first_tag) > count(taken.header, independent_tag))
        header = without(header, independent_tag);
    std::string text = header + "#EXT-X-PLAYLIST-TYPE:VOD\n";
    if (taken.segments.empty())
        return text + "#EXT-X-ENDLIST\n";
    const int64_t early = settings_.begin - taken.segments.front().date;
    if (early > same_time)
        text += fmt::format("#EXT-X-START:TIME-OFFSET={:.3f},PRECISE=YES\n",
                            static_cast<double>(early) / pts_ticks_per_second);
    const listed_segment& last = taken.segments.back();
    auto ranges = parse_date_ranges(taken);
    drop_cancelled(ranges);
    drop_past(ranges, taken.segments.front().date);
    std::erase_if(ranges, [end = last.date + last.duration](const date_range& range) {
        return range.start >= end;
    });
    text += date_ranges_text(ranges);
    text += without(taken.segments.front().text, discontinuity_tag);
    for (size_t i = 1; i < taken.segments.size(); i++)
        text += taken.segments[i].text;
    return text + "#EXT-X-ENDLIST\n";
}
