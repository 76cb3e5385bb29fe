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
// sources are unknown: the timeline stands at the end of the last segment. `target_found` is the
// target duration of the playlists.
recovery recover_state(const output_directory& output, const std::vector<std::string>& rungs,
                       int64_t target_duration, stored_state& state, int64_t& target_found);

// MEDIA-SEQUENCE behind the last segment of the media playlists on disk; 0: there are none.
uint64_t next_sequence_on_disk(const output_directory& output,
                               const std::vector<std::string>& rungs);
