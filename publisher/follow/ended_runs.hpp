// What runs that have ended left in the directory of a segmenter. Its playlists tell of the newest
// run alone, so that all names there are read: not to be done for each fragment.
//
// In which order runs ended the times of their last files tell, so far as nobody has set the clock
// meanwhile. Where that misleads, a run is left out, or comes again behind a discontinuity.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct ended_run {
    std::string base;              // of its fragments' names
    std::vector<uint64_t> numbers; // ascending
};

// The run in hand, `base`, though it may have left nothing, and those that ended between
// `written_ms`, which is since 1970, and the last fragment of the `listed` run, in this order.
// Playlists that do not begin with `m3u8_name` are another segmenter's: whose runs they are that
// nothing lists is not known then, and none of them is taken.
std::deque<ended_run> find_ended_runs(int directory, const std::string& m3u8_name,
                                      const std::string& base, int64_t written_ms,
                                      const std::string& listed);
