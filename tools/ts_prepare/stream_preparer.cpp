#include "tools/ts_prepare/stream_preparer.hpp"

#include <cstdlib>
#include <string>

#include "toolkit/big_endian.hpp"
#include "toolkit/pts_clock.hpp"
#include "tools/ts_prepare/splice_time.hpp"

namespace
{

// A reader takes a section that fills one packet only when the next one of its PID begins, and the
// PMT only after the PAT: with so many pairs in a row it has both, whatever went before.
constexpr unsigned tables_at_start = 4;

constexpr int64_t silence_told_after_us = 2'000'000;
constexpr size_t no_packets_told_after_bytes = 65536;

void forward(stream_preparer& p, std::span<uint8_t> packets)
{
    p.counters.output_packets += packets.size() / ts_packet_bytes;
    add_packets(p.output, packets);
}

void forward_packet(stream_preparer& p, const mpeg_ts_packet& pkt)
{
    p.fragment_may_end = may_cut(p.cuts, pkt) || p.fragment_may_end;
    forward(p, {pkt.raw, ts_packet_bytes});
}

// Time

// A packet whose own time is as it goes out.
void forward_timed(stream_preparer& p, mpeg_ts_packet& pkt, int64_t now_us)
{
    const int64_t offset = clock_offset(p.time);
    if (offset != 0 && p.tables.has_splices[pkt.pid]) {
        const unsigned unmoved = move_splices(pkt, offset);
        p.counters.unmoved_splices += unmoved;
        if (unmoved != 0)
            tell(p.notices, notice_kind::splices, now_us,
                 "a splice keeps its time though the clock was moved: its section on PID %04xh is "
                 "damaged or not in one packet",
                 pkt.pid);
    }
    forward_packet(p, pkt);
}

void release_waiting(stream_preparer& p, int64_t now_us)
{
    for (; p.waiting_begin < p.waiting.packets; p.waiting_begin++) {
        uint8_t* const bytes = packet_at(p.waiting, p.waiting_begin);
        mpeg_ts_packet pkt;
        if (mpeg_ts_decode(pkt, bytes, ts_packet_bytes) == 0 || pkt.transport_error_indicator) {
            forward(p, {bytes, ts_packet_bytes});
            continue;
        }
        release_packet(p.time, pkt, now_us);
        forward_timed(p, pkt, now_us);
    }
}

void settle(stream_preparer& p, time_verdict verdict, int64_t offset_before, int64_t now_us)
{
    if (verdict == time_verdict::jumped) {
        const int64_t jump =
            stamp_distance(clock_offset(p.time) & (pts_modulus - 1), offset_before);
        p.counters.clock_jumps++;
        p.counters.clock_offset = clock_offset(p.time);
        tell(p.notices, notice_kind::clock, now_us,
             "the clock of programme %u jumped by %+.3f s; time goes on by one frame",
             p.tables.program_number, static_cast<double>(jump) / pts_ticks_per_second);
    }
    release_waiting(p, now_us);
}

void keep_waiting(stream_preparer& p, const uint8_t* packet, int64_t now_us)
{
    if (p.waiting.packets == p.waiting_begin)
        p.waiting_since_us = now_us;
    push_packet(p.waiting, packet);
}

bool waits_too_long(const stream_preparer& p, int64_t now_us)
{
    return p.time.holding && (p.waiting.packets - p.waiting_begin >= waiting_most_packets ||
                              (p.live && now_us - p.waiting_since_us >= waiting_longest_us));
}

void end_long_wait(stream_preparer& p, int64_t now_us)
{
    if (!waits_too_long(p, now_us))
        return;
    const int64_t before = clock_offset(p.time);
    settle(p, end_wait(p.time), before, now_us);
}

// Packets without a time to look at.
void send_as_is(stream_preparer& p, std::span<uint8_t> packets, int64_t now_us)
{
    if (!p.time.holding) {
        forward(p, packets);
        return;
    }
    for (; !packets.empty(); packets = packets.subspan(ts_packet_bytes))
        keep_waiting(p, packets.data(), now_us);
}

void send(stream_preparer& p, mpeg_ts_packet& pkt, int64_t now_us)
{
    if (p.options.keep_time) {
        forward_packet(p, pkt);
        return;
    }
    const int64_t offset_before = clock_offset(p.time);
    const time_verdict verdict = take_time(p.time, pkt, now_us);
    if (verdict == time_verdict::pass) {
        forward_timed(p, pkt, now_us);
        return;
    }
    keep_waiting(p, pkt.raw, now_us);
    if (verdict == time_verdict::hold)
        end_long_wait(p, now_us);
    else
        settle(p, verdict, offset_before, now_us);
}

// Tables

void put_tables_in(stream_preparer& p, unsigned times, int64_t now_us)
{
    std::vector<uint8_t> packets = table_packets(p.tables, times);
    const size_t count = packets.size() / ts_packet_bytes;
    p.counters.table_packets += count;
    if (p.time.holding) {
        send_as_is(p, packets, now_us);
    } else {
        p.counters.output_packets += count;
        add_made_packets(p.output, std::move(packets));
    }
    const sent_mark now{.us = now_us, .packets = p.counters.input_packets};
    p.pat_sent = now;
    p.pmt_sent = now;
}

void announce_tables(stream_preparer& p, int64_t now_us)
{
    put_tables_in(p, tables_at_start, now_us);
    p.tables_announced = true;
    p.reader_can_start = true;
}

bool is_due(const stream_preparer& p, const sent_mark& sent, int64_t now_us)
{
    return (p.counters.input_packets - sent.packets) * ts_packet_bytes >= p.options.table_bytes ||
           (p.live && now_us - sent.us >= p.options.table_us);
}

void repeat_tables(stream_preparer& p, int64_t now_us)
{
    if (p.tables_announced && (is_due(p, p.pat_sent, now_us) || is_due(p, p.pmt_sent, now_us)) &&
        may_put_tables_in(p.tables))
        put_tables_in(p, 1, now_us);
}

std::string listed_programmes(const prepared_tables& tables)
{
    std::string list;
    for (const uint16_t number : tables.listed_programmes)
        list += (list.empty() ? "" : ", ") + std::to_string(number);
    return list.empty() ? "none" : list;
}

void tell_of_missing_programme(stream_preparer& p, int64_t now_us)
{
    tell(p.notices, notice_kind::programme, now_us,
         "programme %u is not there: nothing goes through until it is; the PAT lists: %s",
         p.options.programme.value_or(0), listed_programmes(p.tables).c_str());
}

void take_streams(stream_preparer& p)
{
    follow_streams(p.time, p.tables);
    watch_streams(p.cuts, p.tables.streams);
}

void take_table_event(stream_preparer& p, table_event event, int64_t now_us)
{
    if (event == table_event::none)
        return;
    const bool is_pmt = event == table_event::pmt || event == table_event::pmt_changed;
    if (event == table_event::lost) {
        p.tables_announced = false;
        if (p.options.programme)
            tell_of_missing_programme(p, now_us);
        else
            tell(p.notices, notice_kind::tables, now_us, "the PAT names no programme any more");
    }
    if (event == table_event::pmt_changed)
        take_streams(p);
    if (event == table_event::pat_changed && p.tables_announced)
        tell(p.notices, notice_kind::programme, now_us,
             "the PAT has changed: programme %u, PMT %04xh, sent on PID %04xh",
             p.tables.program_number, p.tables.pmt_pid, sent_pmt_pid(p.tables));

    const sent_mark now{.us = now_us, .packets = p.counters.input_packets};
    (is_pmt ? p.pmt_sent : p.pat_sent) = now;
}

// After the packet that brought the event.
void follow_table_event(stream_preparer& p, table_event event, int64_t now_us)
{
    if (event == table_event::none || !may_put_tables_in(p.tables))
        return;
    const bool new_tables = event == table_event::pmt || event == table_event::pmt_changed ||
                            event == table_event::pat_changed;
    if (!p.tables_announced) {
        announce_tables(p, now_us);
    } else if (writes_tables(p.tables) && new_tables) {
        put_tables_in(p, 1, now_us);
    }
}

// Packets

void check_continuity(stream_preparer& p, const mpeg_ts_packet& pkt, int64_t now_us)
{
    if (continues(p.continuity, pkt))
        return;
    p.counters.continuity_errors++;
    tell(p.notices, notice_kind::continuity, now_us, "continuity error on PID %04xh", pkt.pid);
}

// A packet whose header cannot be believed goes where its PID says, and nothing is read from it.
void pass_damaged(stream_preparer& p, uint8_t* packet, int64_t now_us)
{
    const uint16_t pid = load_be16(packet + 1) & ts_pid_mask;
    if (!p.options.programme || p.tables.belongs[pid])
        send_as_is(p, {packet, ts_packet_bytes}, now_us);
    else
        p.counters.dropped_packets++;
}

void go_on(stream_preparer& p, uint8_t* packet, int64_t now_us)
{
    mpeg_ts_packet pkt;
    if (mpeg_ts_decode(pkt, packet, ts_packet_bytes) == 0 || pkt.transport_error_indicator) {
        pass_damaged(p, packet, now_us);
        return;
    }
    const table_event event = read_tables(p.tables, pkt);
    take_table_event(p, event, now_us);
    const bool nothing_to_pass = p.options.programme && !tables_are_known(p.tables);
    const bool passes = pass_packet(p.tables, pkt) && !nothing_to_pass;
    if (passes || pkt.pid == ts_pat_pid || pkt.pid == p.tables.pmt_pid)
        check_continuity(p, pkt, now_us);
    if (passes)
        send(p, pkt, now_us);
    else
        p.counters.dropped_packets++;
    follow_table_event(p, event, now_us);
    repeat_tables(p, now_us);
}

// The stream's beginning

void find_pmt_in_beginning(stream_preparer& p)
{
    for (size_t i = 0; i < p.beginning.packets && p.tables.pmt.empty(); i++) {
        mpeg_ts_packet pkt;
        if (mpeg_ts_decode(pkt, packet_at(p.beginning, i), ts_packet_bytes) != 0 &&
            !pkt.transport_error_indicator && pkt.pid == p.tables.pmt_pid)
            read_tables(p.tables, pkt);
    }
}

void end_beginning(stream_preparer& p, int64_t now_us)
{
    p.beginning_is_over = true;
    p.tables.pat_sections = {}; // the packets pass once more
    p.tables.pmt_sections = {};
    if (tables_are_known(p.tables)) {
        take_streams(p);
        announce_tables(p, now_us);
    } else if (p.options.programme) {
        tell_of_missing_programme(p, now_us);
    } else if (p.beginning.packets != 0) {
        tell(p.notices, notice_kind::tables, now_us,
             "no PAT and PMT in the first %zu bytes; the stream goes through as it is",
             p.beginning.packets * ts_packet_bytes);
    }
    for (size_t i = 0; i < p.beginning.packets; i++)
        go_on(p, packet_at(p.beginning, i), now_us);
}

void hold_beginning(stream_preparer& p, const uint8_t* packet, int64_t now_us)
{
    if (p.beginning.packets == 0)
        p.beginning_since_us = now_us;
    mpeg_ts_packet pkt;
    uint8_t* const kept = push_packet(p.beginning, packet);
    if (mpeg_ts_decode(pkt, kept, ts_packet_bytes) == 0 || pkt.transport_error_indicator)
        return;
    const table_event event = read_tables(p.tables, pkt);
    if (event == table_event::pat_changed && p.tables.pmt.empty() &&
        p.beginning_searches < beginning_most_searches) {
        p.beginning_searches++;
        find_pmt_in_beginning(p);
    }
}

bool beginning_lasts(const stream_preparer& p, int64_t now_us)
{
    return !tables_are_known(p.tables) && p.beginning.packets < beginning_most_packets &&
           (!p.live || now_us - p.beginning_since_us < beginning_longest_us);
}

void take_packet(stream_preparer& p, uint8_t* packet, int64_t now_us)
{
    p.counters.input_packets++;
    if ((packet[1] & 0x80) != 0) {
        p.counters.transport_errors++;
        tell(p.notices, notice_kind::transport_error, now_us,
             "a packet came with transport_error_indicator");
    }
    if (p.beginning_is_over) {
        go_on(p, packet, now_us);
        return;
    }
    hold_beginning(p, packet, now_us);
    if (!beginning_lasts(p, now_us))
        end_beginning(p, now_us);
}

// RTP

void count_rtp(stream_preparer& p, int64_t now_us)
{
    if (p.rtp.lost != p.counters.rtp_lost)
        tell(p.notices, notice_kind::rtp, now_us, "%llu RTP datagrams lost",
             static_cast<unsigned long long>(p.rtp.lost - p.counters.rtp_lost));
    p.counters.rtp_lost = p.rtp.lost;
    p.counters.rtp_duplicates = p.rtp.duplicates;
    p.counters.rtp_reordered = p.rtp.reordered;
}

void take_ordered(stream_preparer& p, int64_t now_us)
{
    std::vector<uint8_t> packets;
    while (take_ordered_datagram(p.rtp, packets))
        for (size_t at = 0; at < packets.size(); at += ts_packet_bytes)
            take_packet(p, push_packet(p.ordered, packets.data() + at), now_us);
}

void skip_missing_datagrams(stream_preparer& p, int64_t now_us)
{
    skip_missing(p.rtp);
    take_ordered(p, now_us);
}

void take_rtp_header(stream_preparer& p, const rtp_fields& header, int64_t now_us)
{
    take_ordered(p, now_us);
    while (is_beyond_window(p.rtp, header.sequence_number, header.ssrc))
        skip_missing_datagrams(p, now_us);
    begin_datagram(p.rtp, header.sequence_number, header.ssrc, now_us);
    count_rtp(p, now_us);
}

void take_framed_packet(stream_preparer& p, uint8_t* packet, int64_t now_us)
{
    const rtp_fate fate = p.framing.format == packet_format::rtp ? p.rtp.fate : rtp_fate::pass;
    if (fate == rtp_fate::pass)
        take_packet(p, packet, now_us);
    else if (fate == rtp_fate::keep)
        keep_packet(p.rtp, packet);
}

void skip_bytes(stream_preparer& p, size_t count, int64_t now_us)
{
    p.counters.skipped_bytes += count;
    const bool told = p.no_packets_bytes >= no_packets_told_after_bytes;
    p.no_packets_bytes += count;
    if (!told && p.no_packets_bytes >= no_packets_told_after_bytes)
        tell(p.notices, notice_kind::input_format, now_us,
             "the input is no transport stream: no packets in %zu bytes", p.no_packets_bytes);
}

void take_step(stream_preparer& p, const framing_step& step, int64_t now_us)
{
    switch (step.event) {
    case framing_event::packet:
        take_framed_packet(p, step.at, now_us);
        break;
    case framing_event::rtp_header:
        take_rtp_header(p, step.rtp, now_us);
        break;
    case framing_event::skipped:
        skip_bytes(p, step.consumed, now_us);
        break;
    case framing_event::lost:
        p.counters.sync_losses++;
        tell(p.notices, notice_kind::sync_loss, now_us, "no packet where one should begin");
        break;
    case framing_event::found:
        p.no_packets_bytes = 0;
        if (p.framing.format != packet_format::plain)
            tell(p.notices, notice_kind::input_format, now_us, "the input is %s",
                 packet_format_name(p.framing.format));
        break;
    case framing_event::need_more:
        break;
    }
}

size_t take_bytes(stream_preparer& p, std::span<uint8_t> bytes, more_input more, int64_t now_us)
{
    size_t consumed = 0;
    for (;;) {
        const framing_step step = next_framing_step(p.framing, bytes.subspan(consumed), more);
        take_step(p, step, now_us);
        consumed += step.consumed;
        if (step.event == framing_event::need_more)
            return consumed;
    }
}

} // namespace

void start_preparer(stream_preparer& p, const prepare_options& options, bool live)
{
    p.options = options;
    p.live = live;
    p.time.live = live;
    p.tables.wanted_programme = options.programme;
    p.tables.drop_service_information = options.drop_service_information;
}

size_t prepare_input(stream_preparer& p, std::span<uint8_t> bytes, int64_t now_us)
{
    if (p.silent)
        tell(p.notices, notice_kind::input_is_back, now_us, "the input is back after %.1f s",
             static_cast<double>(now_us - p.input_us) / 1e6);
    p.silent = false;
    p.input_us = now_us;
    return take_bytes(p, bytes, more_input::may_come, now_us);
}

void prepare_pause(stream_preparer& p, int64_t now_us)
{
    while (waited_too_long(p.rtp, now_us)) {
        skip_missing_datagrams(p, now_us);
        count_rtp(p, now_us);
    }
    if (!p.beginning_is_over && p.beginning.packets != 0 && !beginning_lasts(p, now_us))
        end_beginning(p, now_us);
    end_long_wait(p, now_us);
    if (p.input_us < 0)
        p.input_us = now_us; // the wait for the first input begins
    if (p.live && !p.silent && now_us - p.input_us >= silence_told_after_us) {
        p.silent = true;
        tell(p.notices, notice_kind::silence, now_us, "no input for %.1f s",
             static_cast<double>(now_us - p.input_us) / 1e6);
    }
}

void prepare_end(stream_preparer& p, std::span<uint8_t> bytes, int64_t now_us)
{
    take_bytes(p, bytes, more_input::none, now_us);
    p.framing = {};
    while (p.rtp.waiting != 0)
        skip_missing_datagrams(p, now_us);
    p.rtp.begun = false; // another input may count a little behind this one
    count_rtp(p, now_us);
    if (!p.beginning_is_over && p.beginning.packets != 0)
        end_beginning(p, now_us);
    if (p.time.holding) {
        const int64_t before = clock_offset(p.time);
        settle(p, end_wait(p.time), before, now_us);
    }
}

void clear_sent(stream_preparer& p)
{
    clear_output(p.output);
    p.fragment_may_end = false;
    clear_queue(p.ordered);
    if (p.beginning_is_over)
        clear_queue(p.beginning);
    // Where one wait follows the other in one piece of input, the queue is never empty here.
    p.waiting_begin -= drop_blocks_before(p.waiting, p.waiting_begin);
    if (p.waiting_begin == p.waiting.packets) {
        clear_queue(p.waiting);
        p.waiting_begin = 0;
    }
}
