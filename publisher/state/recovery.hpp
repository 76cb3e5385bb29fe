// Reads a presentation back from its own playlists and segments, where the state is lost or older
// than they are.
#pragma once

#include <string>
#include <vector>

#include "publisher/compose/output_directory.hpp"
#include "publisher/state/stored_state.hpp"

enum class recovery {
    nothing, // there are no playlists
    recovered,
    other_target, // they have another target duration, which must not change
};

// The state that the playlists of these rungs in the directory tell of. The positions of the
// sources are unknown: the timeline stands at the end of the last segment. Segments from before the
// playlists may have left them just now: they are retired. `target_found` is the target duration of
// the playlists.
recovery recover_state(const output_directory& output, const std::vector<std::string>& rungs,
                       int64_t target_duration, stored_state& state, int64_t& target_found);

// What the media playlists on disk name, all together.
struct sequences_on_disk {
    uint64_t first = 0;
    uint64_t next = 0; // behind the last one; 0: they name nothing
};
sequences_on_disk find_sequences(const output_directory& output,
                                 const std::vector<std::string>& rungs);
