// One presentation: takes GOPs from its sources, makes segments of them, and keeps the playlists.
//
// A step is made in this order, so that a process killed at any instant can go on: the segments'
// files are made, the step is saved, the playlists are replaced. What was made and not saved is
// made anew; what was saved and is not listed yet is listed at the next start. A segment that
// cannot be made or saved is tried again, and none behind it is begun. Playlists that cannot be
// replaced are tried again too, with what has been saved meanwhile.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "publisher/compose/output_directory.hpp"
#include "publisher/compose/retirement.hpp"
#include "publisher/config/settings.hpp"
#include "publisher/ladder/gathering.hpp"
#include "publisher/ladder/ladder.hpp"
#include "publisher/ladder/segment_files.hpp"
#include "publisher/metrics/deliveries.hpp"
#include "publisher/metrics/metrics.hpp"
#include "publisher/peer/peer_watch.hpp"
#include "publisher/state/state_store.hpp"
#include "publisher/text/listed_lines.hpp"

enum class start_result {
    ready,
    refused, // starting again would not help
    failed,  // it may
};

class publisher
{
public:
    explicit publisher(publisher_settings settings);

    // Takes up the presentation where it was left, or begins it. The reason of a failure is told.
    start_result start();

    // Looks for something new and publishes it. `now_ms` is on the clock of the boot.
    void step(int64_t now_ms);

    // In how many milliseconds step() is to be called though nothing has been heard.
    [[nodiscard]] int64_t next_step_ms(int64_t now_ms) const;

    // Publishes what is there and closes the presentation for good.
    [[nodiscard]] bool end(int64_t now_ms);
    [[nodiscard]] bool has_ended() const { return p_.ended; }

    // Takes over what may change while it is live; a reason why not is told.
    void change(const publisher_settings& wanted);

    [[nodiscard]] const std::vector<std::string>& source_paths() const { return source_paths_; }

    // Sources on other machines: the descriptor is polled, and fetch() called when it is ready or
    // that time has passed; true: a step may find something. -1: there are none.
    [[nodiscard]] int fetch_fd() const { return client_.fd(); }
    [[nodiscard]] int64_t fetch_wait_ms() const { return client_.wait_ms(); }
    bool fetch() { return client_.serve(); }

    // What is wrong, for whoever asks about health; empty: nothing.
    [[nodiscard]] std::string trouble(int64_t now_ms) const;
    [[nodiscard]] std::string metrics_text(int64_t now_ms);

    // Which sources the newest segments came from, in JSON.
    [[nodiscard]] std::string deliveries() const { return deliveries_text(delivered_); }

private:
    // What is counted and told of each rung.
    struct rung_report {
        metrics counts;
        std::vector<int64_t> unlisted_since; // when the fragments of segments not listed yet were
                                             // seen
        int64_t newest_ms = -1;              // when a segment was published last
        bool split_told = false;
    };

    // When lists went to disk, and how far.
    struct written_list {
        uint64_t next_sequence = 0;
        int64_t ms = 0;
    };

    start_result take_up_state();
    start_result recover(const char* why);
    start_result begin_as_peer();
    std::vector<peer_answer> ask_all_peers();
    bool take_up(const std::vector<peer_answer>& answers, uint64_t next,
                 bool (*is_wanted)(const media_list& list, uint64_t next));
    void go_on_behind_last();
    [[nodiscard]] bool is_fresh() const;
    void begin_presentation();
    void adopt(stored_state state);
    void mend_listed();
    bool mend(size_t at, segment_file& file);
    void count_listed_bytes();
    [[nodiscard]] bool is_known(const std::string& name, uint64_t sequence) const;
    void remove_leftovers();
    void remove_leftovers_of(const std::string& folder);
    void reopen_output(int64_t now_ms);
    bool reopen_state(int64_t now_ms);
    void publish_the_rest();

    void gather(row next, int64_t now_ms);
    void find_place_again(int64_t now_ms);
    void note(size_t rung, const chosen_gop& chosen);
    void publish_planned(int64_t now_ms);
    bool publish_one(const planned_segment& plan, int64_t now_ms);
    void count(const planned_segment& plan, const made_segment& made);
    segment& listed_at(uint64_t sequence);
    [[nodiscard]] size_t count_of_leaving(int64_t now_ms) const;
    [[nodiscard]] bool save(state_step& step, std::string& error);
    [[nodiscard]] state_step step_with(const made_segment& made, const planned_segment& plan,
                                       int64_t now_ms);
    std::vector<retired_segment> leave_list(size_t count);
    void take_back_fills(const made_segment& made);
    void tell_fullness();
    [[nodiscard]] uint64_t room_for_retired() const;
    void tell_changes(const std::vector<std::string>& before,
                      const std::vector<std::string>& now) const;
    const listed_lines& follow(const std::string& playlist, const listed_lines& anew);
    [[nodiscard]] bool is_shared(const std::string& track) const;
    void write_playlists(int64_t now_ms);
    void remove_gone_playlists(const std::vector<std::string>& listed) const;
    void remove_due(int64_t now_ms);

    [[nodiscard]] bool is_numbered_by_stream() const;
    void tell_misfit(const planned_segment& plan);
    [[nodiscard]] bool is_held_back() const;

    [[nodiscard]] int64_t late_at_ms() const;              // -1: never
    [[nodiscard]] int64_t waited_ms(int64_t now_ms) const; // for a segment
    [[nodiscard]] source_report report() const;

    void tell(const std::string& line) const;
    void fail(const std::string& what, int64_t now_ms);

    publisher_settings settings_;
    std::vector<std::string> rungs_; // their names
    std::vector<std::string> source_paths_;
    output_directory output_;
    segment_files files_;
    state_store store_;
    http_client client_; // of sources and peers on other machines
    ladder ladder_;
    peer_watch peers_;
    std::shared_ptr<prometheus::Registry> registry_;
    std::vector<rung_report> reports_;
    std::deque<delivered_segment> delivered_; // the newest

    presentation p_;
    stored_head head_;
    retirement retired_;
    uint64_t listed_bytes_ = 0;
    std::vector<std::string> unswept_; // folders that may have left-over files

    gathering gathering_;

    std::map<std::string, listed_lines> lines_; // by the name of the playlist
    bool playlists_are_old_ = false;
    bool master_is_old_ = false;
    bool segments_are_unlisted_ = false;
    std::deque<written_list> written_; // the newest that is a target duration old, and those since
    int64_t newest_ms_ = -1;           // when a segment was published last, or a start took it up
    int64_t gathered_since_ms_ = -1;   // when there was something to publish for the first time
    int64_t step_begun_ms_ = 0;
    int64_t started_ms_ = 0;
    int64_t retry_ms_ = -1;
    std::string trouble_; // what could not be done last; empty: nothing
    bool hole_ = false;   // the sources took back what was to be published next
    bool links_told_ = false;
    bool fullness_told_ = false;
    bool misfit_told_ = false;
    bool half_turn_told_ = false;
    bool splices_told_ = false;
};
