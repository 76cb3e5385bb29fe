// Reads a presentation back from its own playlists and segments, where the state is lost or older
// than they are.
#pragma once

#include <string>

#include "publisher/compose/output_directory.hpp"
#include "publisher/state/stored_state.hpp"

enum class recovery {
    nothing, // there are no playlists
    recovered,
    other_target, // they have another target duration, which must not change
};

// The state that the playlists in the directory tell of. Its position is unknown: the timeline
// stands at the end of the last segment. `target_found` is the target duration of the playlists.
recovery recover_state(const output_directory& output, const std::string& rendition,
                       int64_t target_duration, stored_state& state, int64_t& target_found);

// MEDIA-SEQUENCE behind the last segment of the media playlist on disk; 0: there is none.
uint64_t next_sequence_on_disk(const output_directory& output, const std::string& rendition);
