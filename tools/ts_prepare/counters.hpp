// What a run has counted, and the line of JSON that tells it.
#pragma once

#include <cstdint>
#include <string>

struct prepare_counters {
    uint64_t input_bytes = 0;
    uint64_t input_packets = 0;
    uint64_t output_packets = 0; // of the input and of tables, without padding
    uint64_t padding_packets = 0;
    uint64_t table_packets = 0;   // put in
    uint64_t dropped_packets = 0; // of other programmes, or of none
    uint64_t continuity_errors = 0;
    uint64_t transport_errors = 0; // packets with transport_error_indicator
    uint64_t sync_losses = 0;
    uint64_t skipped_bytes = 0; // between packets
    uint64_t rtp_lost = 0;      // datagrams
    uint64_t rtp_duplicates = 0;
    uint64_t rtp_reordered = 0;
    uint64_t clock_jumps = 0;     // smoothed
    int64_t clock_offset = 0;     // ticks of 90 kHz added to time stamps now
    uint64_t unmoved_splices = 0; // sections whose times are not on the clock that goes out
    uint64_t reader_behind = 0;   // portions of padding left out because the reader was behind
};

// One line without its end.
std::string counters_as_json(const prepare_counters& counters, double seconds);
