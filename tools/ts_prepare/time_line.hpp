// The clock of a programme, kept going: when PCR, PTS and DTS jump together (a source that begins
// anew, a file in a loop), one offset for all of them lets time go on by one frame. All of it is
// arithmetic on the clock of 33 bits, so its wrap is no jump.
//
// The PCR is the master. There is one for the whole programme, at least every 100 ms, apart from
// PES headers: what only one stream's time stamps say is that stream's own affair, and a single
// damaged stamp is nobody's. Where a programme has no PCR, time stamps in a row have to do.
//
// A stamp out of line can be told from a jump only by those that follow. Until then packets are
// held back, for a fraction of a second; the caller keeps them and limits the wait.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "toolkit/ts/time_fields.hpp"
#include "tools/ts_prepare/prepared_tables.hpp"

// One stretch of the input's time, and what brings it to the output's. After a jump, packets of the
// stretch before may still come, so the last ones are kept.
struct clock_epoch {
    int64_t offset = 0;       // added to a stamp, ticks of 90 kHz
    int64_t last_used_at = 0; // output time of the programme
    bool in_use = false;
};

// The time stamps of one elementary stream. DTS, or PTS where there is no DTS.
struct stamp_line {
    uint16_t pid = 0;
    bool is_paced = false;       // audio and video: the next stamp comes soon
    int64_t last_out = -1;       // -1: none yet
    int64_t step = 3600;         // from one stamp to the next
    int64_t programme_then = -1; // output time of the programme at the last one
    int64_t last_us = 0;         // when it came
    unsigned strays = 0;         // stamps out of line in a row
    int64_t stray_out = -1;      // the last one of them
};

// What the packets since the first stamp out of line have shown.
struct clock_suspicion {
    int64_t at = -1;  // that stamp, as it came; -1: there is none
    uint16_t pid = 0; // of the stream it belongs to
    bool began_as_pcr = false;
    bool announced = false; // discontinuity_indicator came with a PCR
    bool pid_returned = false;
    unsigned new_pcrs = 0;
    unsigned old_pcrs = 0;
    unsigned new_stamps = 0;
    unsigned new_stamps_in_a_row = 0;
    unsigned old_stamps = 0;
    int64_t reference_out = -1; // output time of the last old one of the reference
    int64_t pcr = -1;           // the first new ones
    int64_t reference_stamp = -1;
    int64_t any_stamp = -1;
    uint16_t any_pid = 0;
};

struct time_line {
    bool live = true; // input comes in real time, so that a pause in it explains a step in its time

    uint16_t pcr_pid = no_pcr_pid;
    std::vector<stamp_line> lines;
    std::array<uint8_t, pid_count> line_of{}; // 1 and the line's place in `lines`; 0: none
    uint16_t reference_pid = 0;               // the first video stream, else the first audio stream
    int64_t reference_out = -1;
    int64_t reference_step = 3600;
    int64_t pcr_out = -1;
    int64_t pcr_step = 3600;
    int64_t pcr_us = 0; // when it came
    unsigned stamps_without_pcr = 0;

    std::array<clock_epoch, 4> epochs{clock_epoch{.in_use = true}};
    size_t current = 0;        // in `epochs`
    bool epoch_has_pcr = true; // of the current one, a PCR went out
    clock_suspicion suspicion; // while packets are held
    bool holding = false;
};

// The programme's streams, after its PMT has come or changed.
void follow_streams(time_line& line, const prepared_tables& tables);

enum class time_verdict {
    pass,   // goes out, as it now is
    hold,   // has to wait, with all that follow
    jumped, // what waits may go: there was a jump
    settled // what waits may go: there was none
};

// Takes the next packet. One that passes has its stamps rewritten in place. While packets wait,
// this one waits with them, whatever the verdict; each of them then goes through release_packet.
time_verdict take_time(time_line& line, mpeg_ts_packet& pkt, int64_t now_us);

// Ends the wait without a decision, or with the one that the evidence allows.
time_verdict end_wait(time_line& line);

// Rewrites the stamps of a packet that waited.
void release_packet(time_line& line, mpeg_ts_packet& pkt, int64_t now_us);

// Ticks of 90 kHz that are added to stamps at present; negative: they are put back.
int64_t clock_offset(const time_line& line);
