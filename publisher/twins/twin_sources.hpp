// The sources of one rendition: follows their directories, which may be filled from other machines,
// and gives out one stream of GOPs, each from whichever source has it best.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "publisher/config/settings.hpp"
#include "publisher/follow/http_client.hpp"
#include "publisher/follow/source_directory.hpp"
#include "publisher/follow/source_mirror.hpp"
#include "publisher/state/stored_state.hpp"
#include "publisher/twins/twin_room.hpp"

// A GOP to publish, and where all the sources are behind it.
struct chosen_gop {
    source_gop gop;
    size_t source = 0;
    std::vector<source_place> places;
};

class twin_sources
{
public:
    // What the client fetches from other machines is kept in folders of `spools` until it is
    // published. The client and what it goes by outlive this.
    twin_sources(const rendition_settings& settings, http_client& client,
                 const http_settings& fetch, const std::string& spools, int64_t longest_gop,
                 int64_t outgrown_ms);

    // Goes on behind what is published: the places, or what the timeline tells. `layout` is that of
    // the last GOP, if it is known.
    void resume(const std::vector<source_place>& places, const std::string& layout,
                const timeline& line);

    // What is before these places may go.
    void forget_behind(const std::vector<source_place>& places);

    // Looks what there is. `now_ms` is on the clock of the boot.
    void look(int64_t now_ms);

    [[nodiscard]] bool has_gop() const { return !ready_.empty(); }
    chosen_gop take_gop();

    // In how many milliseconds to look again though nothing has been heard; -1: no need.
    [[nodiscard]] int64_t look_again_ms(int64_t now_ms) const;

    [[nodiscard]] size_t count() const { return sources_.size(); }
    [[nodiscard]] const std::string& path(size_t source) const;
    [[nodiscard]] const source_report& report(size_t source) const;
    [[nodiscard]] source_report report() const; // of all together, without their lines
    [[nodiscard]] bool is_refused(size_t source) const;
    [[nodiscard]] const mirror_report* fetched(size_t source) const; // null: it is a directory

    // Lines for the operator.
    std::vector<std::string> take_lines();

private:
    struct followed_source {
        std::unique_ptr<source_mirror> mirror; // null: the directory is of this machine
        std::unique_ptr<source_directory> directory;
        std::deque<source_gop> waiting; // as the room has them
        source_place place;             // behind what is published or not needed
        bool refusal_told = false;
    };

    void hand_over(size_t source, int64_t now_ms);
    void take(const twin_decision& decision);
    void tell_refusals();

    void take_lines(std::vector<std::string>& told);

    std::vector<followed_source> sources_;
    twin_room room_;
    std::deque<chosen_gop> ready_;
    std::optional<size_t> last_source_;
    std::vector<std::string> lines_;
};
