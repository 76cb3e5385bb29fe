// Everything that vorn_ts_prepare does to a stream, between bytes that have come and bytes to be
// sent: framing, tables, one programme, the clock. No descriptor and no clock of the system: time
// is passed in, microseconds that only grow.
#pragma once

#include <cstdint>
#include <span>

#include "tools/ts_prepare/continuity.hpp"
#include "tools/ts_prepare/counters.hpp"
#include "tools/ts_prepare/cut_watch.hpp"
#include "tools/ts_prepare/notices.hpp"
#include "tools/ts_prepare/options.hpp"
#include "tools/ts_prepare/packet_framing.hpp"
#include "tools/ts_prepare/packet_output.hpp"
#include "tools/ts_prepare/packet_queue.hpp"
#include "tools/ts_prepare/prepared_tables.hpp"
#include "tools/ts_prepare/rtp_order.hpp"
#include "tools/ts_prepare/time_line.hpp"

// The stream's beginning is held back for its tables no further than this.
constexpr size_t beginning_most_packets = (size_t{8} << 20) / ts_packet_bytes;
constexpr int64_t beginning_longest_us = 5'000'000;

// It is searched for the PMT that a new PAT names. Where PATs go on changing, the PMT has to come
// behind one of them.
constexpr unsigned beginning_most_searches = 16;

// Packets are held back for a decision on the clock no further than this.
constexpr size_t waiting_most_packets = (size_t{2} << 20) / ts_packet_bytes;
constexpr int64_t waiting_longest_us = 300'000;

struct sent_mark {
    int64_t us = 0;
    uint64_t packets = 0; // of the output so far
};

struct stream_preparer {
    prepare_options options;
    bool live = true; // the input comes in real time

    packet_framing framing;
    size_t no_packets_bytes = 0; // skipped since packets were found last
    rtp_order rtp;
    packet_queue ordered; // datagrams that had to wait for others
    continuity_check continuity;
    prepared_tables tables;
    time_line time;
    cut_watch cuts;

    packet_queue beginning;
    int64_t beginning_since_us = 0; // when its first packet came
    unsigned beginning_searches = 0;
    bool beginning_is_over = false;
    bool tables_announced = false; // to the reader, and the stream still has them
    bool reader_can_start = false; // they were announced once

    packet_queue waiting;
    size_t waiting_begin = 0; // packets before it have gone to the output
    int64_t waiting_since_us = 0;

    sent_mark pat_sent;
    sent_mark pmt_sent;
    int64_t input_us = -1; // when the last input came, or was waited for first
    bool silent = false;

    packet_output output;          // refers to the bytes passed in last
    bool fragment_may_end = false; // at a packet in the output
    prepare_counters counters;
    notice_board notices;
};

void start_preparer(stream_preparer& preparer, const prepare_options& options, bool live);

// Takes bytes of the input, and returns how many: the rest has to be passed in again, in front of
// more. The bytes may be changed in place, and have to stay until the output has been sent.
size_t prepare_input(stream_preparer& preparer, std::span<uint8_t> bytes, int64_t now_us);

// Does what is due because time has passed.
void prepare_pause(stream_preparer& preparer, int64_t now_us);

// The input has ended, for good or for a while; `bytes` is what was left over. Another input may
// follow.
void prepare_end(stream_preparer& preparer, std::span<uint8_t> bytes, int64_t now_us);

// The output has been sent.
void clear_sent(stream_preparer& preparer);

// Whether null packets may fill the stream: a reader that does not know the tables yet would only
// see them pushed further apart.
inline bool may_pad(const stream_preparer& preparer)
{
    return preparer.live && preparer.reader_can_start;
}
