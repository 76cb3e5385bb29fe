// All that a run in the default mode leaves: one rendition with audio and video together, a master
// playlist, and what the two renditions without packets leave by design.
#pragma once

#include "tests/support/expect_run.hpp"
#include "tests/support/expected_text.hpp"
#include "tests/support/stream_builder.hpp"

struct default_run_facts {
    // Where in the stream each fragment begins; the last is the one open at the end.
    std::vector<size_t> starts = {};
    // EXTINF of each fragment but the last, as printed.
    std::vector<std::string> durations = {};
    unsigned target_duration = 4;
    size_t backlog = 10;
    expected_programme programme = {};
    expected_master_playlist master = {}; // as last written
};

// Every fragment holds the stream's packets from its start to the next one's.
expected_run expected_default_run(const stream_builder& stream, const default_run_facts& facts);
