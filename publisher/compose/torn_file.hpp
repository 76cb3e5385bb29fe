// A segment's file that a power cut has torn: what was written last may be short, empty or gone.
//
// Lists lose segments at their front alone, RFC 8216 6.2.1, so it stays listed, and what is missing
// is filled up with what players pass over: null packets, or empty lines of subtitles. They wait
// for good where there is sound and no picture, and end where there are several with neither: such
// a segment repeats the one before.
#pragma once

#include <cstdint>
#include <string>

#include "publisher/compose/output_directory.hpp"

// Gives the file `bytes` again, and returns how many it has; 0: it could not be written. Of a
// stream the pictures and the sound that are whole are kept. Where either is missing, they are
// those of the file `before`, `later` ticks later; 0: time does not go on behind that, and only its
// tables are taken.
uint64_t fill_up(output_directory& output, const std::string& name, uint64_t bytes,
                 const std::string& before, int64_t later);
