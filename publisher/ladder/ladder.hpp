// The rungs of a presentation: follows the sources of each, and gives out rows of GOPs.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "publisher/config/settings.hpp"
#include "publisher/ladder/gathering.hpp"
#include "publisher/ladder/ladder_room.hpp"
#include "publisher/state/stored_state.hpp"
#include "publisher/twins/twin_sources.hpp"

class ladder
{
public:
    // The client and the settings outlive this.
    ladder(const publisher_settings& settings, http_client& client);

    // Goes on behind what is published: a place for each rung.
    void resume(const std::vector<rung_place>& places, const timeline& line);

    // What is before these places may go.
    void forget_behind(const std::vector<rung_place>& places);

    // Looks what there is. `now_ms` is on the clock of the boot.
    void look(int64_t now_ms);

    [[nodiscard]] bool has_row() const { return !ready_.empty(); }
    // So many rows wait that no more are to be looked for: each keeps files open.
    [[nodiscard]] bool is_full() const { return ready_.size() >= most_rows_; }
    row take_row();

    // In how many milliseconds to look again though nothing has been heard; -1: no need.
    [[nodiscard]] int64_t look_again_ms(int64_t now_ms) const;

    [[nodiscard]] size_t count() const { return rungs_.size(); }
    [[nodiscard]] const twin_sources& sources(size_t rung) const { return *rungs_[rung].sources; }

    // Lines for the operator.
    std::vector<std::string> take_lines();

private:
    struct followed_rung {
        std::string name;
        std::unique_ptr<twin_sources> sources;
        std::deque<chosen_gop> waiting; // as the room has them
        bool misalignment_told = false;
    };

    [[nodiscard]] bool is_full(const followed_rung& rung) const
    {
        return rung.waiting.size() >= most_of_rung_;
    }
    void hand_over(size_t rung, int64_t now_ms);
    void take(const ladder_decision& decision);
    void tell_misalignments();

    std::vector<followed_rung> rungs_;
    size_t most_of_rung_;
    ladder_room room_;
    std::deque<row> ready_;
    size_t most_rows_;
    std::vector<std::string> lines_;
};
