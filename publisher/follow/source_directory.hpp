// Follows one directory that the segmenter writes into, and gives out its GOPs in order.
//
// Fragment n is complete when fragment n + 1 is there, when a playlist lists it and it cannot be
// told who has it open, or when nobody has it open for writing any more: that is the last fragment
// of a run that has ended, which no other one follows. Each fragment is opened as soon as it
// appears and stays open while it matters, so that its deletion takes nothing away.
//
// A run is known by the name that its fragments begin with. A run that takes the names of an
// earlier one writes over what is published, and is not followed. What ended runs have left is
// given out before the run that is listed.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "publisher/base/descriptor.hpp"
#include "publisher/compose/output_directory.hpp"
#include "publisher/follow/ended_runs.hpp"
#include "publisher/follow/source_playlist.hpp"
#include "publisher/read/fragment_reader.hpp"
#include "publisher/state/stored_state.hpp"
#include "publisher/text/presentation.hpp"

// A subtitle fragment as the source has it.
struct subtitle_text {
    std::string language;
    std::string text;
};

// The part of a rendition that goes separately: bytes of its own fragments.
struct track_range {
    std::string track; // "audio", "sap"
    std::shared_ptr<source_file> file;
    uint64_t begin = 0;
    uint64_t end = 0;
    std::vector<uint8_t> tables; // to be put first where the range does not begin with them
    audio_facts facts;
};

// A GOP with everything that belongs to it.
struct source_gop {
    gop what;
    int64_t length = 0;      // ticks to the next one, or to its own end
    bool after_loss = false; // a run begins with it, or fragments before it are missing
    bool ends_run = false;   // nothing came behind it: its end may be missing
    int64_t arrival_ms = 0;  // since 1970: when its last byte was written
    int64_t seen_ms = 0;     // on the clock of the boot: when it was complete
    std::shared_ptr<source_file> file;
    std::vector<track_range> tracks;
    std::vector<subtitle_text> subtitles; // of its fragment, with the fragment's last GOP
    std::vector<std::string> languages;   // of all subtitles that there are
    source_position after;                // the place behind it
};

// What there is to tell about a source. Counters only grow.
struct source_report {
    uint64_t runs = 0;           // that began while it was followed
    uint64_t lost_fragments = 0; // deleted before they were read
    uint64_t unusable_fragments = 0;
    bool names_used_again = false;
    bool there = false;             // the directory can be read
    std::vector<std::string> lines; // for the operator; taken by whoever prints them
};

class source_directory
{
public:
    // A fragment that is written for longer than `outgrown_ms` is read as it grows.
    source_directory(std::string path, std::string m3u8_name, int64_t longest_gop,
                     int64_t outgrown_ms);

    // Other sources deliver the same stream: the content of GOPs is told, and they are given out
    // when it is known whether packets at their end are missing. The first picture of the next
    // fragment says it, but where the cut went through a PES packet of the sound: then its next
    // packet does. Else it is not known, and not waited for.
    void have_twins();

    // The directory is filled from a server: its fragments come whole, each as late as it lasts.
    // The operator knows it by the URL.
    void be_spool_of(const std::string& url);

    // The PID of the splice information; 0: the PMT says it.
    void read_splices_of(uint16_t pid);

    // Goes on behind what is published.
    void resume(const source_position& position);
    // Without a position: what begins before this time of the stream's clock is published already.
    void resume_behind(int64_t clock) { behind_clock_ = clock; }

    // Looks what there is. `now_ms` is on the clock of the boot.
    void look(int64_t now_ms);

    [[nodiscard]] bool has_gop() const { return !ready_.empty(); }
    [[nodiscard]] const source_gop& front() const { return ready_.front(); }
    source_gop take_gop();

    // A GOP is there that waits for what comes behind it.
    [[nodiscard]] bool holds_gop() const { return held_.has_value(); }

    // In how many milliseconds to look again though nothing has been heard; -1: no need.
    [[nodiscard]] int64_t look_again_ms() const { return look_again_ms_; }

    source_report report;

private:
    struct open_track {
        std::string name;
        std::string base;
        fragment_reader reader;
        std::shared_ptr<source_file>
            file; // of the fragment in hand; null: not opened, or not there
        uint64_t bytes_read = 0;
        uint64_t begin = 0; // not given out yet
        audio_facts facts;
    };

    bool open_directory();
    void read_playlists();
    void find_ended();
    bool follow_ended(int64_t now_ms);
    void choose_run();
    [[nodiscard]] fragment_reader new_reader() const;
    void begin_run(const std::string& base, uint64_t number);
    [[nodiscard]] bool names_are_used_again() const;
    [[nodiscard]] bool list_is_of_run() const;
    void refuse_run();
    bool follow_to_end(int64_t now_ms);
    bool follow_run(int64_t now_ms);
    bool open_fragment(int64_t now_ms);
    [[nodiscard]] std::optional<uint64_t> next_number() const;
    bool skip_missing();
    [[nodiscard]] bool is_closed(uint64_t number) const;
    [[nodiscard]] bool is_complete() const;
    bool read_on(uint64_t most);
    bool read_to_end(int64_t now_ms);
    void finish_fragment(int64_t now_ms);
    void collect(int64_t now_ms, bool fragment_is_finished);
    bool hold_next(int64_t now_ms, bool fragment_is_finished);
    bool give_out_held(std::optional<int64_t> next_start, bool fragment_is_finished);
    bool keep_usable(source_gop& of) const;
    void open_tracks();
    bool take_tracks(source_gop& of, std::optional<int64_t> end_clock, bool fragment_is_finished);
    void take_subtitles(source_gop& of) const;

    [[nodiscard]] std::string file_name(uint64_t number) const;
    [[nodiscard]] bool exists(const std::string& name) const;
    std::shared_ptr<source_file> open_file(const std::string& name) const;
    [[nodiscard]] std::string read_small(const std::string& name) const;
    void tell(std::string line);
    void look_again_in(int64_t ms);
    [[nodiscard]] int64_t next_fragment_wait_ms() const;

    std::string path_;
    std::string told_as_;
    std::string m3u8_name_;
    int64_t longest_gop_;
    int64_t outgrown_ms_;
    bool has_twins_ = false;
    bool is_spool_ = false;
    uint16_t splice_pid_ = 0; // 0: the PMT says it
    std::shared_ptr<descriptor> directory_;

    source_master_playlist master_;
    source_media_playlist list_;

    std::string base_;         // of the run; empty: none
    std::string refused_base_; // of one that uses names again
    uint64_t number_ = 0;      // of the fragment in hand
    uint64_t skip_bytes_ = 0;  // of it: published already
    uint64_t last_inode_ = 0;  // of the fragment before it; 0: not known
    uint64_t last_bytes_ = 0;
    uint64_t last_listed_ = 0; // number, of the run
    int64_t written_ms_ = 0;   // file time of what was given out last; 0: not known
    bool after_loss_ = true;
    std::optional<int64_t> behind_clock_;
    std::deque<ended_run> ended_; // the run in hand first, where another one is listed; else empty
    std::string ended_before_;    // the one that was listed when they were found

    std::shared_ptr<source_file> file_; // the fragment in hand; null: not there yet
    uint64_t bytes_read_ = 0;
    int64_t opened_ms_ = 0;
    bool gave_gop_ = false; // the fragment in hand did
    int64_t unreadable_since_ms_ = -1;
    fragment_reader reader_;
    std::vector<open_track> tracks_;

    std::optional<source_gop> held_; // complete but for the time of the one behind it
    bool held_is_last_ = false;      // of its fragment
    std::deque<source_gop> ready_;
    int64_t look_again_ms_ = -1;
};
