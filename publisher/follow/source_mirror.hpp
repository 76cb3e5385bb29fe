// Fetches what a segmenter on another machine writes, from the web server that offers its directory
// there, into a spool: a directory of this machine that is then followed like any other.
//
// The playlists say which fragments are complete. Each is fetched once, whole, with what belongs to
// it, in the order of the numbers, and stands under its name when all of it is there. A fragment
// that is in no list when its run has ended is fetched too, as it is. What is published is removed.
// A later process takes the spool up, unless the machine was started anew: then files may be torn.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "publisher/compose/output_directory.hpp"
#include "publisher/follow/http_client.hpp"
#include "publisher/follow/source_playlist.hpp"
#include "publisher/state/stored_state.hpp"

// What there is to tell about a server. Counters only grow.
struct mirror_report {
    bool there = false; // it answers
    uint64_t requests = 0;
    uint64_t failures = 0; // requests without a useful answer
    uint64_t bytes = 0;
    uint64_t fragments = 0; // fetched, and how long they took
    double fragment_seconds = 0;
    std::vector<std::string> lines; // for the operator; taken by whoever prints them
};

class source_mirror
{
public:
    // The client and the settings outlive it. `url` is that of the directory.
    source_mirror(http_client& client, const http_settings& settings, std::string url,
                  std::string m3u8_name, std::string spool);

    // What is before this place is not wanted.
    void resume(const source_position& position);
    // What is before this place may go.
    void remove_behind(const source_position& position);

    // Takes what has come and asks for more. `now_ms` is on the clock of the boot.
    void look(int64_t now_ms);

    // In how many milliseconds to look again though nothing has come; -1: no need.
    [[nodiscard]] int64_t look_again_ms() const { return look_again_ms_; }

    mirror_report report;

private:
    struct remote_playlist {
        http_validators validators; // of the text
        int64_t whole_ms = 0;       // when it was sent
        std::string text;
    };
    struct spooled_fragment {
        fragment_name name;
        std::vector<std::string> files;
        uint64_t bytes = 0;
    };
    enum class question { none, main, list, file };

    bool open_spool(int64_t now_ms);
    void take_up_spool();
    void remove_oldest();
    void limit_spool();
    bool store(const std::string& name, const std::string& text, int64_t now_ms);

    void ask_next(int64_t now_ms);
    void ask_for_playlist(question what, const std::string& name, const remote_playlist& known,
                          int64_t now_ms);
    [[nodiscard]] bool wants_file() const;
    [[nodiscard]] std::vector<std::string> files_of(uint64_t number) const;
    bool ask_for_file(int64_t now_ms);
    void rest(int64_t now_ms);

    void take_answer(int64_t now_ms);
    void take_main(bool is_another, int64_t now_ms);
    void take_list(bool is_another, int64_t now_ms);
    [[nodiscard]] bool is_older(const source_media_playlist& list) const;
    [[nodiscard]] uint64_t first_listed(const std::string& base) const;
    void skip_to(uint64_t first);
    bool put_list(int64_t now_ms);
    void take_file(int64_t now_ms);
    void have_file(uint64_t bytes);
    void skip_fragment();

    void back_off(int64_t now_ms);
    void fail(const std::string& what, int64_t now_ms);
    void cannot_write(const std::string& what, int64_t now_ms);
    void tell(const std::string& line);

    std::string url_; // ends with a slash
    std::string told_as_;
    std::string m3u8_name_;
    std::string spool_path_;
    output_directory spool_;
    bool spool_is_open_ = false;
    http_fetch fetch_;

    question asked_ = question::none;
    int64_t due_ms_ = 0; // nothing is asked before
    int64_t look_again_ms_ = -1;

    remote_playlist main_;
    remote_playlist list_;
    source_master_playlist master_;
    std::string lead_; // file of the list; empty: not known
    std::string body_; // of the playlist that comes
    bool main_is_due_ = true;
    bool list_is_due_ = true;   // before any file
    bool list_is_kept_ = false; // not put into the spool yet
    source_media_playlist listed_;
    std::string listed_text_;     // the same, as it came
    int64_t older_since_ms_ = -1; // answers have been older than that; -1: they are not
    int64_t changed_ms_ = 0;      // when the list was another one
    uint64_t grown_by_ = 0;       // fragments, with that
    int64_t back_off_ms_ = 0;     // 0: the last request went well
    std::string trouble_;         // told; empty: none
    std::string write_trouble_;

    std::string base_;               // of the run whose fragments are fetched; empty: none
    std::string former_base_;        // of the one before
    std::string reused_base_;        // of one that takes names that were taken
    uint64_t next_ = 0;              // number to fetch
    uint64_t last_ = 0;              // that is listed
    int unlisted_left_ = 0;          // fragments of a run that has ended, to be tried
    std::vector<std::string> files_; // of the fragment in hand, the last to fetch first
    spooled_fragment hand_;          // what of it is there
    int failed_tries_ = 0;           // for it
    descriptor file_;                // that is being written
    int write_error_ = 0;

    std::deque<spooled_fragment> spooled_; // oldest first
    uint64_t spooled_bytes_ = 0;
    std::optional<source_position> position_; // that resume() was told; for the first opening
};
