// Splice information, ANSI/SCTE 35: where a programme may be left for another one, and where it
// goes on. Only what a playlist tells is read: splice_insert and time_signal. What is encrypted,
// not known or not sound is passed over.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

enum class splice_kind {
    out,     // the programme is left
    in,      // it goes on
    command, // something else, for whoever knows what
    cancel,  // what was told of the event does not happen
};

struct splice_cue {
    splice_kind kind = splice_kind::command;
    std::string event;      // tells events from one another, like "insert-7"
    uint8_t type = 0;       // segmentation_type_id, that of its beginning where it comes in pairs
    int64_t time = -1;      // on the clock of 33 bits; -1: now
    int64_t duration = 0;   // ticks until it ends; 0: not told
    bool returns = false;   // it ends then by itself: auto_return
    bool immediate = false; // no time is told
    std::string section;    // as sent, in hexadecimal digits

    bool operator==(const splice_cue&) const = default;
};

// splice_info_section(), 9.6. The bytes are one section. Empty: it tells nothing.
std::vector<splice_cue> read_splices(std::span<const uint8_t> section);
