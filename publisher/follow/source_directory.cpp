#include "publisher/follow/source_directory.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "publisher/base/files.hpp"
#include "publisher/base/waits.hpp"
#include "publisher/timeline/timeline.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr uint64_t head_bytes = uint64_t{64} << 10;

// The segmenter keeps some fragments that it no longer lists.
constexpr int unlisted_fragments = 8;

// How long the next fragment may take to appear behind the end of one. It follows at once, if at
// all.
constexpr int64_t next_fragment_ms = 100;
constexpr int64_t short_wait_ms = 2;

// How long it may take until the next fragment shows whether the end of one is whole.
constexpr int64_t end_ms = 500;
constexpr int64_t end_wait_ms = 5;

constexpr int64_t growing_wait_ms = 200;
constexpr int64_t longest_unreadable_ms = 5000;
constexpr int64_t missing_directory_wait_ms = 500;

// GOPs that are given out at a look: each keeps a file open until it is published.
constexpr size_t most_at_once = 32;

constexpr std::string_view video_suffix = ".v";

struct file_facts {
    uint64_t inode = 0;
    uint64_t bytes = 0;
};

bool is_empty(const source_file& file)
{
    struct stat found {
    };
    return fstat(file.fd.get(), &found) != 0 || found.st_size == 0;
}

std::optional<file_facts> facts_of(int directory, const std::string& name)
{
    struct stat found {
    };
    if (fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return file_facts{.inode = found.st_ino, .bytes = static_cast<uint64_t>(found.st_size)};
}

// A read lease is given only for a file that nobody has open for writing. Where leases cannot be
// had, nothing is known.
bool has_no_writer(const source_file& file)
{
    if (fcntl(file.fd.get(), F_SETLEASE, F_RDLCK) != 0)
        return false;
    std::ignore = fcntl(file.fd.get(), F_SETLEASE, F_UNLCK); // was only asked for
    return true;
}

// Hands the reader what the file has beyond `done`, up to `most` bytes; false: it cannot be read.
bool read_file(const source_file& file, uint64_t& done, uint64_t most, fragment_reader& reader)
{
    static std::array<uint8_t, 348 * 188 * 2> buffer; // whole packets, read by one thread
    while (done < most) {
        const size_t wanted = std::min<uint64_t>(buffer.size(), most - done);
        const ssize_t got = pread(file.fd.get(), buffer.data(), wanted, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        const size_t taken = reader.read({buffer.data(), static_cast<size_t>(got)});
        done += taken;
        if (taken == 0)
            return true;
    }
    return true;
}

bool learn_tables(const source_file& file, fragment_reader& reader)
{
    std::array<uint8_t, size_t{348} * 188> buffer{};
    uint64_t done = 0;
    while (!reader.knows_tables() && done < most_fragment_bytes) {
        const ssize_t got =
            pread(file.fd.get(), buffer.data(), buffer.size(), static_cast<off_t>(done));
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        reader.learn_tables({buffer.data(), static_cast<size_t>(got)});
        done += buffer.size();
    }
    return true;
}

} // namespace

source_directory::source_directory(std::string path, std::string m3u8_name, int64_t longest_gop,
                                   int64_t outgrown_ms)
    : path_(std::move(path)), told_as_(path_), m3u8_name_(std::move(m3u8_name)),
      longest_gop_(longest_gop), outgrown_ms_(outgrown_ms), reader_(longest_gop)
{
}

void source_directory::tell(std::string line)
{
    report.lines.push_back(told_as_ + ": " + std::move(line));
}

void source_directory::look_again_in(int64_t ms)
{
    look_again_ms_ = sooner(look_again_ms_, ms);
}

void source_directory::have_twins()
{
    has_twins_ = true;
    reader_ = new_reader();
}

void source_directory::read_splices_of(uint16_t pid)
{
    splice_pid_ = pid;
    reader_ = new_reader();
}

void source_directory::be_spool_of(const std::string& url)
{
    told_as_ = url;
    is_spool_ = true;
}

// Where the end of a fragment does not tell whether it is whole, the next one does. In a spool it
// comes as late as it lasts, for which only twins wait: they publish what another one has.
int64_t source_directory::next_fragment_wait_ms() const
{
    if (!is_spool_)
        return next_fragment_ms;
    return has_twins_ ? outgrown_ms_ : 0;
}

// The fragment before the place is read again, though nothing of it is given out: it teaches what
// the stream is like, so that going on is recognised as that.
void source_directory::resume(const source_position& position)
{
    base_ = position.base;
    number_ = position.number;
    skip_bytes_ = position.offset;
    last_inode_ = position.last_inode;
    last_bytes_ = position.last_bytes;
    last_listed_ = position.last_listed;
    written_ms_ = position.written_ms;
    after_loss_ = false;
    if (base_.empty() || !open_directory())
        return;
    if (skip_bytes_ == 0 && number_ > 0 && last_bytes_ > 0) {
        const auto before = facts_of(directory_->get(), file_name(number_ - 1));
        if (before && before->inode == last_inode_ && before->bytes == last_bytes_) {
            number_--;
            skip_bytes_ = last_bytes_;
            last_inode_ = 0;
            last_bytes_ = 0;
        }
    }
}

source_gop source_directory::take_gop()
{
    source_gop taken = std::move(ready_.front());
    ready_.pop_front();
    return taken;
}

std::string source_directory::file_name(uint64_t number) const
{
    return fragment_file_name({.base = base_, .number = number});
}

bool source_directory::exists(const std::string& name) const
{
    return facts_of(directory_->get(), name).has_value();
}

bool source_directory::open_directory()
{
    struct stat by_path {
    };
    struct stat by_fd {
    };
    if (stat(path_.c_str(), &by_path) != 0) {
        report.there = false;
        return false;
    }
    // It may have been removed and made anew. Files of the old one stay readable.
    if (directory_ && fstat(directory_->get(), &by_fd) == 0 && by_fd.st_ino == by_path.st_ino &&
        by_fd.st_dev == by_path.st_dev) {
        report.there = true;
        return true;
    }
    auto opened =
        std::make_shared<descriptor>(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    report.there = static_cast<bool>(*opened);
    if (report.there)
        directory_ = std::move(opened);
    return report.there;
}

std::shared_ptr<source_file> source_directory::open_file(const std::string& name) const
{
    descriptor fd = ::open_file(directory_->get(), name);
    struct stat found {
    };
    if (!fd || fstat(fd.get(), &found) != 0)
        return nullptr;
    auto file = std::make_shared<source_file>();
    file->fd = std::move(fd);
    file->directory = directory_;
    file->name = name;
    file->device = found.st_dev;
    file->inode = found.st_ino;
    return file;
}

std::string source_directory::read_small(const std::string& name) const
{
    return read_text(directory_->get(), name, most_playlist_bytes);
}

// What is not there, or not readable at this moment, leaves what was known.
void source_directory::read_playlists()
{
    const std::string first = read_small(m3u8_name_);
    if (first.empty())
        return;
    if (!is_master_playlist(first)) {
        master_ = {};
        list_ = parse_source_media(first);
        return;
    }
    master_ = parse_source_master(first);
    if (!master_.lead.empty()) {
        const std::string lead = read_small(master_.lead);
        if (!lead.empty())
            list_ = parse_source_media(lead);
    }
}

fragment_reader source_directory::new_reader() const
{
    fragment_reader reader(longest_gop_);
    if (has_twins_)
        reader.tell_contents();
    reader.read_splices_of(splice_pid_);
    return reader;
}

void source_directory::begin_run(const std::string& base, uint64_t number)
{
    base_ = base;
    number_ = number;
    skip_bytes_ = 0;
    last_inode_ = 0;
    last_bytes_ = 0;
    last_listed_ = 0;
    after_loss_ = true;
    file_.reset();
    reader_ = new_reader();
    tracks_.clear();
    report.runs++;
    report.names_used_again = false;
    refused_base_.clear();
}

// The fragments that we know under these names are other files now, or the list has gone back. How
// far it has come says nothing: a fragment whose duration is not known, as at a jump of the clock,
// is never listed, the last one of a run neither, and another is closed before it is listed.
bool source_directory::names_are_used_again() const
{
    if (file_) {
        const auto now = facts_of(directory_->get(), file_->name);
        if (now && (now->inode != file_->inode || now->bytes < bytes_read_))
            return true;
    }
    if (last_bytes_ > 0 && number_ > 0) {
        const auto before = facts_of(directory_->get(), file_name(number_ - 1));
        if (before && (before->inode != last_inode_ || before->bytes < last_bytes_))
            return true;
    }
    return list_is_of_run() && list_.fragments.back().number < last_listed_;
}

bool source_directory::list_is_of_run() const
{
    return !list_.fragments.empty() && list_.fragments.back().base == base_;
}

void source_directory::refuse_run()
{
    tell(fmt::format("fragments named {} are written over by another run; nothing is taken until "
                     "a run has names of its own (--frag-name)",
                     base_));
    report.names_used_again = true;
    refused_base_ = base_;
    base_.clear();
    file_.reset();
}

// The list tells no more of the run in hand when it is of another one, and nothing of those that
// came and went in between.
void source_directory::find_ended()
{
    if (base_.empty() || list_.fragments.empty() || list_is_of_run()) {
        ended_.clear();
        return;
    }
    const std::string& listed = list_.fragments.back().base;
    if (ended_.empty() || listed != ended_before_) {
        ended_ = find_ended_runs(directory_->get(), m3u8_name_, base_, written_ms_, listed);
        ended_before_ = listed;
    }
}

// False: there is more of them.
bool source_directory::follow_ended(int64_t now_ms)
{
    while (!ended_.empty()) {
        if (!follow_to_end(now_ms) || file_) // a part of it cannot be read now
            return false;
        if (held_)
            std::ignore = give_out_held(std::nullopt, true);
        ended_.pop_front();
        if (!ended_.empty())
            begin_run(ended_.front().base, ended_.front().numbers.front());
    }
    return true;
}

void source_directory::choose_run()
{
    if (list_.fragments.empty())
        return;
    const std::string& listed = list_.fragments.back().base;
    if (listed == base_ || listed == refused_base_)
        return;
    const auto first = std::find_if(list_.fragments.begin(), list_.fragments.end(),
                                    [&listed](const fragment_name& f) { return f.base == listed; });
    uint64_t number = first->number;
    for (int i = 0; i < unlisted_fragments && number > 0; i++) {
        if (!exists(fragment_file_name({.base = listed, .number = number - 1})))
            break;
        number--;
    }
    begin_run(listed, number);
}

void source_directory::look(int64_t now_ms)
{
    look_again_ms_ = -1;
    if (!open_directory()) {
        look_again_in(missing_directory_wait_ms);
        return;
    }
    read_playlists();
    // Now, while the list is as new as what is known of the run.
    if (!base_.empty() && names_are_used_again())
        refuse_run();
    find_ended();
    if (!follow_ended(now_ms))
        return;
    choose_run();
    if (list_is_of_run())
        last_listed_ = list_.fragments.back().number;
    if (!follow_to_end(now_ms))
        return;
    if (held_ && held_is_last_ && reader_.current_start() < 0) {
        if (now_ms - held_->seen_ms >= next_fragment_wait_ms())
            std::ignore = give_out_held(std::nullopt, true);
        else
            look_again_in(is_spool_ ? growing_wait_ms : short_wait_ms);
    }
}

// False: there is more, for which whoever takes the GOPs has to make room.
bool source_directory::follow_to_end(int64_t now_ms)
{
    while (ready_.size() < most_at_once) {
        if (!follow_run(now_ms))
            return true;
    }
    look_again_ms_ = 0;
    return false;
}

bool source_directory::open_fragment(int64_t now_ms)
{
    file_ = open_file(file_name(number_));
    if (!file_)
        return false;
    bytes_read_ = 0;
    opened_ms_ = now_ms;
    gave_gop_ = false;
    reader_.begin_fragment();
    open_tracks();
    return true;
}

// The fragment of the run behind the one in hand, as far as it is known.
std::optional<uint64_t> source_directory::next_number() const
{
    const auto follows = [this](uint64_t number) {
        return number > number_ && exists(file_name(number));
    };
    if (!ended_.empty()) {
        for (const uint64_t number : ended_.front().numbers) {
            if (follows(number))
                return number;
        }
        return std::nullopt;
    }
    for (const fragment_name& listed : list_.fragments) {
        if (listed.base == base_ && follows(listed.number))
            return listed.number;
    }
    return std::nullopt;
}

// Fragments that were deleted before they could be read.
bool source_directory::skip_missing()
{
    if (exists(file_name(number_))) { // it could not be opened now
        look_again_in(growing_wait_ms);
        return false;
    }
    const auto next = next_number();
    if (!next)
        return false;
    tell(fmt::format("{} fragments were deleted before they were read, from {} on", *next - number_,
                     file_name(number_)));
    report.lost_fragments += *next - number_;
    number_ = *next;
    skip_bytes_ = 0;
    last_bytes_ = 0;
    after_loss_ = true;
    return true;
}

// The program has ended the fragment itself.
bool source_directory::is_closed(uint64_t number) const
{
    return exists(file_name(number + 1)) ||
           std::any_of(list_.fragments.rbegin(), list_.fragments.rend(),
                       [=, this](const auto& f) { return f.base == base_ && f.number >= number; });
}

bool source_directory::is_complete() const
{
    if (!ended_.empty())
        return true;
    // One that has just been made may not be open for writing yet.
    return is_closed(number_) || (!is_empty(*file_) && has_no_writer(*file_));
}

bool source_directory::read_on(uint64_t most)
{
    return read_file(*file_, bytes_read_, std::min(most, most_fragment_bytes), reader_);
}

// One step of the run; true: another may follow at once.
bool source_directory::follow_run(int64_t now_ms)
{
    if (base_.empty())
        return false;
    if (!file_ && !open_fragment(now_ms))
        return skip_missing();

    if (is_complete()) {
        if (!read_to_end(now_ms))
            return false;
        finish_fragment(now_ms);
        return true;
    }
    const bool outgrown = now_ms - opened_ms_ >= outgrown_ms_;
    // What cannot be read now is read later.
    if (outgrown && !reader_.knows_tables())
        std::ignore = learn_tables(*file_, reader_);
    const bool asks_for_end = has_twins_ && held_ && !reader_.knows_end_before();
    if (reader_.knows_tables() && (outgrown || reader_.current_start() < 0 || asks_for_end))
        std::ignore = read_on(outgrown || asks_for_end ? most_fragment_bytes : head_bytes);
    collect(now_ms, false);
    if (outgrown)
        look_again_in(growing_wait_ms);
    else
        look_again_in(std::max<int64_t>(outgrown_ms_ - (now_ms - opened_ms_), 1));
    if (held_)
        look_again_in(reader_.current_start() < 0 ? short_wait_ms : end_wait_ms);
    return false;
}

// False: a part of it cannot be read, and is tried again for a while.
bool source_directory::read_to_end(int64_t now_ms)
{
    const bool whole =
        (reader_.knows_tables() || learn_tables(*file_, reader_)) && read_on(most_fragment_bytes);
    if (whole) {
        unreadable_since_ms_ = -1;
        return true;
    }
    if (unreadable_since_ms_ < 0) {
        unreadable_since_ms_ = now_ms;
        tell(fmt::format("{}: {}", file_->name, std::strerror(errno)));
    }
    look_again_in(growing_wait_ms);
    if (now_ms - unreadable_since_ms_ < longest_unreadable_ms)
        return false;
    unreadable_since_ms_ = -1;
    return true;
}

void source_directory::finish_fragment(int64_t now_ms)
{
    reader_.end_fragment();
    collect(now_ms, true);
    if (!gave_gop_ && bytes_read_ > skip_bytes_) {
        tell(fmt::format("{} holds nothing that can be published", file_->name));
        report.unusable_fragments++;
        after_loss_ = true;
    }
    last_inode_ = file_->inode;
    last_bytes_ = bytes_read_;
    file_.reset();
    number_++;
    skip_bytes_ = 0;
    for (open_track& t : tracks_)
        t.file.reset();
}

// Holds each GOP until the time of the one behind it is known.
void source_directory::collect(int64_t now_ms, bool fragment_is_finished)
{
    for (;;) {
        if (!held_) {
            if (!hold_next(now_ms, fragment_is_finished))
                return;
            continue;
        }
        const int64_t next = reader_.has_gop() ? reader_.next_gop().start : reader_.current_start();
        const bool end_is_known = !has_twins_ || !held_is_last_ || fragment_is_finished ||
                                  reader_.knows_end_before() || now_ms - held_->seen_ms >= end_ms;
        if (next < 0 || !end_is_known || !give_out_held(next, fragment_is_finished))
            return;
    }
}

bool source_directory::hold_next(int64_t now_ms, bool fragment_is_finished)
{
    while (reader_.has_gop()) {
        source_gop next;
        next.what = reader_.take_gop();
        gave_gop_ = true;
        if (next.what.end <= skip_bytes_)
            continue;
        if (behind_clock_) {
            if (is_from_before(next.what.start, *behind_clock_))
                continue;
            const int64_t distance = stamp_distance(*behind_clock_, next.what.start);
            after_loss_ = std::abs(distance) > same_place;
            behind_clock_.reset();
        }
        held_is_last_ = fragment_is_finished && !reader_.has_gop();
        written_ms_ = file_time_ms(file_->fd);
        next.length = next.what.length;
        next.after_loss = std::exchange(after_loss_, false);
        next.arrival_ms =
            written_ms(file_->fd) - reader_.queued_length() / pts_ticks_per_millisecond;
        next.seen_ms = now_ms;
        next.file = file_;
        for (const source_subtitles& subtitles : master_.subtitles)
            next.languages.push_back(subtitles.language);
        next.after = {
            .base = base_,
            .number = number_,
            .offset = next.what.end,
            .last_inode = last_inode_,
            .last_bytes = last_bytes_,
            .last_listed = last_listed_,
            .written_ms = written_ms_,
        };
        if (held_is_last_) {
            next.after = {
                .base = base_,
                .number = number_ + 1,
                .offset = 0,
                .last_inode = file_->inode,
                .last_bytes = bytes_read_,
                .last_listed = last_listed_,
                .written_ms = written_ms_,
            };
            std::ignore = take_tracks(next, std::nullopt, true);
            take_subtitles(next);
        }
        held_ = std::move(next);
        return true;
    }
    return false;
}

bool source_directory::give_out_held(std::optional<int64_t> next_start, bool fragment_is_finished)
{
    if (next_start)
        held_->length = length_until(held_->what.start, held_->what.length, *next_start);
    held_->ends_run = !next_start;
    if (!next_start && !is_closed(number_ - 1) && !keep_usable(*held_)) {
        held_.reset();
        return true;
    }
    if (!held_is_last_ && !take_tracks(*held_, next_start, fragment_is_finished))
        return false;
    if (next_start && held_is_last_ && reader_.lost_before_fragment())
        held_->what.continuity_errors++;
    ready_.push_back(std::move(*held_));
    held_.reset();
    return true;
}

// Of a GOP that a program was killed in: the part of a picture is fatal to some decoders. False:
// nothing is left.
bool source_directory::keep_usable(source_gop& of) const
{
    const auto heard = std::count_if(tracks_.begin(), tracks_.end(),
                                     [](const open_track& t) { return !t.facts.codec.empty(); });
    of.what.end = of.what.usable_end;
    of.length = of.what.length = of.what.usable_length;
    of.what.lacks_sound = of.what.lacks_sound || std::cmp_less(of.tracks.size(), heard);
    return of.what.end > of.what.begin;
}

void source_directory::open_tracks()
{
    const bool separate = master_.separate_audio && base_.ends_with(video_suffix);
    if (separate && tracks_.empty()) {
        const std::string stem = base_.substr(0, base_.size() - video_suffix.size());
        for (const char* name : {"audio", "sap"}) {
            const bool is_main = name == std::string_view("audio");
            if (!is_main && !master_.secondary_audio)
                continue;
            tracks_.push_back({
                .name = name,
                .base = stem + (is_main ? ".a" : ".sap"),
                .reader = fragment_reader(INT64_MAX),
                .file = nullptr,
                .facts = {},
            });
        }
    }
    for (open_track& t : tracks_) {
        t.file.reset();
        t.bytes_read = 0;
        t.begin = 0;
        t.reader.begin_fragment();
    }
}

// The bytes of the separate renditions that go with the GOP; false: they are not all there yet.
bool source_directory::take_tracks(source_gop& of, std::optional<int64_t> end_clock,
                                   bool fragment_is_finished)
{
    std::vector<track_range> ranges;
    for (open_track& t : tracks_) {
        if (!t.file)
            t.file = open_file(fragment_file_name({.base = t.base, .number = number_}));
        if (!t.file) {
            if (fragment_is_finished)
                continue;
            return false;
        }
        read_file(*t.file, t.bytes_read, most_fragment_bytes, t.reader);
        if (fragment_is_finished)
            t.reader.end_fragment();
        const auto& points = t.reader.audio_points();
        if (points.empty())
            continue; // this rendition has no stream
        uint64_t end = t.bytes_read;
        if (end_clock) {
            const auto behind =
                std::find_if(points.begin(), points.end(), [&](const audio_point& point) {
                    return point.offset >= t.begin && stamp_distance(*end_clock, point.pts) >= 0;
                });
            if (behind == points.end() && !fragment_is_finished)
                return false;
            if (behind != points.end())
                end = behind->offset;
        }
        while (t.reader.has_gop()) {
            const gop taken = t.reader.take_gop();
            of.what.continuity_errors += taken.continuity_errors;
            of.what.transport_errors += taken.transport_errors;
            if (!taken.facts.audio.empty())
                t.facts = taken.facts.audio.front();
        }
        track_range range{
            .track = t.name,
            .file = t.file,
            .begin = t.begin,
            .end = end,
            .tables = {},
            .facts = t.facts,
        };
        if (range.begin > 0) {
            const fragment_tables& tables = t.reader.tables();
            range.tables = tables.pat_packets;
            range.tables.insert(range.tables.end(), tables.pmt_packets.begin(),
                                tables.pmt_packets.end());
        }
        ranges.push_back(std::move(range));
    }
    for (size_t i = 0; i < ranges.size(); i++) {
        for (open_track& t : tracks_) {
            if (t.name == ranges[i].track)
                t.begin = ranges[i].end;
        }
        of.what.layout += ' ' + ranges[i].track + ' ' + ranges[i].facts.codec + ' ' +
                          std::to_string(ranges[i].facts.channels);
    }
    of.tracks = std::move(ranges);
    return true;
}

void source_directory::take_subtitles(source_gop& of) const
{
    for (const std::string& language : of.languages) {
        std::string text = read_small(subtitle_file_name(file_->name, language));
        if (!text.empty())
            of.subtitles.push_back({.language = language, .text = std::move(text)});
    }
}
