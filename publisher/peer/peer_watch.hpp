// Holds what other publishers of the same stream publish against what is published here, once in a
// target duration, while both are live.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "publisher/config/settings.hpp"
#include "publisher/follow/http_client.hpp"
#include "publisher/peer/peer_start.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/text/presentation.hpp"

class peer_watch
{
public:
    // The client and the settings outlive it.
    peer_watch(const publisher_settings& settings, http_client& client);

    // What a start has asked for: until the next answer, it is what the peer lists.
    void begin_with(const peer_answer& answer);

    // Takes what has come and asks for more. `now_ms` is on the clock of the boot.
    void look(const presentation& ours, int64_t now_ms);

    // In how many milliseconds to look again though nothing has come; -1: no need.
    [[nodiscard]] int64_t look_again_ms(const presentation& ours, int64_t now_ms) const;

    // A peer has published this segment, or one behind it.
    [[nodiscard]] bool have(uint64_t sequence) const;
    // A viewer who comes from a peer's longer list would miss what is there and not in this one.
    [[nodiscard]] bool have_more(const presentation& ours) const;
    // A peer has published some segments more.
    [[nodiscard]] bool are_ahead(const presentation& ours) const;

    struct peer_report {
        std::string url;
        bool up = false;        // its list can be fetched, and goes on
        std::string difference; // empty: there is none
    };
    [[nodiscard]] std::vector<peer_report> report() const;

    // Lines for the operator.
    std::vector<std::string> take_lines();

private:
    struct peer {
        std::string url;
        std::unique_ptr<http_fetch> fetch;
        bool is_asked = false;
        int64_t asked_ms = -1; // when it was asked last
        std::string body;
        std::string text; // the newest list
        http_validators validators;
        int64_t changed_ms = 0; // when it was another one
        uint64_t first = 0;     // of its segments
        uint64_t last = 0;
        bool up = false;
        std::string down_told; // why
        std::string difference;
    };

    [[nodiscard]] int64_t due_ms(const peer& of, const presentation& ours) const;
    void take_answer(peer& of, const presentation& ours, int64_t now_ms);
    void take_list(peer& of, const media_list& list, const presentation& ours);
    void be_down(peer& of, const std::string& why);

    const publisher_settings& settings_;
    http_settings http_;
    std::vector<peer> peers_;
    std::vector<std::string> lines_;
};
