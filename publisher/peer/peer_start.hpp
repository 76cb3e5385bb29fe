// Where a publisher goes on as another one of the same stream does: one that starts without a state
// or with an older one than what the other lists, or that was cut off while the clock jumped. It
// asks, and waits for the answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "publisher/config/settings.hpp"
#include "publisher/follow/http_client.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/timeline/timeline.hpp"

struct peer_answer {
    std::string url;
    media_list list;     // of one segment at least
    int64_t stood_s = 0; // how long it has been the same; 0: that is not known
};

// Asks all peers. What has come furthest is first; lists that stand still come last. `lines` are
// for the operator.
std::vector<peer_answer> ask_peers(http_client& client, const publisher_settings& settings,
                                   std::vector<std::string>& lines);

// Whether the list alone tells how numbers go on behind what is published, of which `next` would be
// the next one, where it is not known what the sources have: it begins later, or the clock may have
// jumped since.
bool is_needed(const media_list& list, uint64_t next);

// The same, where the stream does not go on: it did there.
bool goes_on_there(const media_list& list, uint64_t next);

// Where a presentation goes on that takes up a peer's.
struct peer_place {
    uint64_t next_sequence = 0;
    uint64_t discontinuities = 0;
    timeline line;
};

// The place behind the oldest of its segments, from `next` on, that no discontinuity follows: what
// comes then, the sources may still have. `date` is now. Nothing: `error` says why.
std::optional<peer_place> ask_for_place(http_client& client, const publisher_settings& settings,
                                        const peer_answer& answer, uint64_t next, int64_t date,
                                        std::string& error);
