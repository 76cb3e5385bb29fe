// What the reader makes of a fragment: one or more stretches that each begin with a keyframe, if
// the fragment has any. A stretch is what is published, alone or joined with those that follow.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "publisher/read/scte35.hpp"
#include "publisher/read/stream_facts.hpp"

// A point of the stream's clock and the time of day that the stream says it was then.
struct date_mark {
    int64_t clock = 0;   // 90 kHz, 33 bits
    int64_t unix_ms = 0; // of the TDT or TOT, ETSI EN 300 468, 5.2.5 and 5.2.6
};

struct gop {
    uint64_t begin = 0; // bytes of its fragment
    uint64_t end = 0;
    // The PAT and PMT packets that came last before it; empty where it begins with its own. Put in
    // front of it they are repetitions, which a stream may have.
    std::vector<uint8_t> tables;

    int64_t start = -1; // time stamp of its first picture or audio frame, 33 bits; -1: none
    int64_t length = 0; // ticks from there to the end of its last one, by its own time stamps
    // What of it can be played where a program was killed in it: not its last picture where nothing
    // says that it is whole.
    uint64_t usable_end = 0; // bytes of its fragment; `begin`: nothing
    int64_t usable_length = 0;
    bool lacks_sound = false; // that has been heard before: no whole PES packet can be played
    bool keyframe = false;    // a decoder can begin here
    // Bytes of its fragment: from the first packet of its first picture to the last one, with those
    // of other streams that stand between. Nothing where there is no picture.
    uint64_t picture_begin = 0;
    uint64_t picture_end = 0;
    bool independent = false; // and needs nothing of what came before: an IDR picture or its like
    bool cut_at_jump = false; // its time stamps jumped; what came behind the jump is left out

    uint64_t continuity_errors = 0; // packets lost, by their continuity counters
    uint64_t transport_errors = 0;  // packets with transport_error_indicator

    // Tells one GOP from another by its pictures, or by its sound where there are none. Time stamps
    // and counters are no part of it, so that it is the same on another clock. 0 unless the reader
    // was told to tell it.
    uint64_t content = 0;

    std::optional<date_mark> date;
    std::vector<splice_cue> splices; // that were told in it; each with a time
    stream_facts facts;
    // Programme, PIDs, stream types, parameter sets, audio format: a player can go on without
    // being told only where none of it changes. Compared as a whole.
    std::string layout;
};
