// The whole of vorn_ts_prepare between bytes in and bytes out: framing, RTP, tables, one programme,
// the clock; in pieces and pauses that the input chooses, and in floods that reach the bounds of
// what is held. And what it says of a stream.

#include <array>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "tools/ts_prepare/description_text.hpp"
#include "tools/ts_prepare/stream_preparer.hpp"

namespace
{

constexpr size_t packets_at_once = 7;
constexpr size_t most_times = 200; // as many packets as the program reads at a time
constexpr uint64_t most_packets = 40'000;

// Null packets with a number, by which the order of the output is checked. The input has no others.
constexpr std::array<uint8_t, 12> marker_head = {0x47, 0x1F, 0xFF, 0x10, 'i', 'n',
                                                 ' ',  'o',  'r',  'd',  'e', 'r'};

struct fuzz_run {
    stream_preparer preparer;
    std::vector<uint8_t> rest; // not taken yet
    int64_t now_us = 0;
    uint64_t packets_out = 0;
    uint64_t marked_in = 0;
    uint64_t marked_out = 0; // the number seen last
    size_t fed = 0;          // packets at a time, at most
};

prepare_options read_options(fuzz_input& input, bool& live, bool& in_sync, size_t& times)
{
    prepare_options options;
    const auto flags = input.number<uint8_t>();
    live = (flags & 0x01) != 0;
    in_sync = (flags & 0x02) != 0;
    times = (flags & 0x40) != 0 ? 1 + input.number<uint8_t>() % most_times : 1;
    options.keep_time = (flags & 0x04) != 0;
    if ((flags & 0x08) != 0)
        options.programme = uint16_t{1};
    options.drop_service_information = (flags & 0x10) != 0;
    options.table_bytes = 10000;
    return options;
}

void check_order(fuzz_run& run, const uint8_t* packet)
{
    if (run.marked_in == 0 || !std::equal(marker_head.begin(), marker_head.end(), packet))
        return;
    uint64_t number = 0;
    std::memcpy(&number, packet + marker_head.size(), sizeof number);
    require(run.marked_out < number && number <= run.marked_in);
    run.marked_out = number;
}

// Every byte that goes out is read, and it is in packets. What stays is within its bounds: packets
// wait for a decision until so many do, and of one piece of input then.
void take_output(fuzz_run& run)
{
    const stream_preparer& p = run.preparer;
    std::vector<uint8_t> out;
    for (const iovec& piece : p.output.pieces) {
        const auto* const bytes = static_cast<const uint8_t*>(piece.iov_base);
        out.insert(out.end(), bytes, bytes + piece.iov_len);
    }
    require(out.size() == p.output.bytes && out.size() % ts_packet_bytes == 0);
    for (size_t at = 0; at < out.size(); at += ts_packet_bytes) {
        require(out[at] == ts_sync_byte);
        check_order(run, out.data() + at);
    }
    run.packets_out += out.size() / ts_packet_bytes;
    clear_sent(run.preparer);
    require(p.waiting.blocks.size() <= (waiting_most_packets + run.fed) / packets_per_block + 2);
    require(p.beginning.packets <= beginning_most_packets);
    require(p.ordered.packets == 0 && p.output.made.empty());
    // The tables that one packet calls forth: two sections of 1024 bytes at most.
    require(p.counters.table_packets <= 12 * (p.counters.input_packets + 4));
}

void feed(fuzz_run& run, std::span<const uint8_t> bytes)
{
    run.rest.insert(run.rest.end(), bytes.begin(), bytes.end());
    // At its exact size, so that a look past the end shows.
    std::vector<uint8_t> exact = run.rest;
    const size_t taken = prepare_input(run.preparer, exact, run.now_us);
    require(taken <= exact.size());
    take_output(run);
    run.rest.assign(exact.begin() + static_cast<ptrdiff_t>(taken), exact.end());
    require(run.rest.size() < 16384); // or the buffer of the program would fill up
    prepare_pause(run.preparer, run.now_us);
    take_output(run);
}

void append_marker(fuzz_run& run, std::vector<uint8_t>& packets)
{
    std::array<uint8_t, ts_packet_bytes> packet{};
    std::ranges::copy(marker_head, packet.begin());
    run.marked_in++;
    std::memcpy(packet.data() + marker_head.size(), &run.marked_in, sizeof run.marked_in);
    packets.insert(packets.end(), packet.begin(), packet.end());
}

// Some packets, so many times over.
void feed_in_sync(fuzz_run& run, fuzz_input& input, size_t times)
{
    run.fed = times * (packets_at_once + 1);
    while (!input.empty() && run.preparer.counters.input_packets < most_packets) {
        std::vector<uint8_t> once;
        for (size_t n = 0; n < packets_at_once && !input.empty(); n++) {
            std::array<uint8_t, ts_packet_bytes> packet{};
            std::ranges::copy(input.take(packet.size()), packet.begin());
            packet[0] = ts_sync_byte;
            if ((packet[1] & 0x1F) == 0x1F && packet[2] == 0xFF)
                packet[2] = 0xFE;
            once.insert(once.end(), packet.begin(), packet.end());
        }
        std::vector<uint8_t> packets;
        for (size_t n = 0; n < times; n++) {
            packets.insert(packets.end(), once.begin(), once.end());
            append_marker(run, packets);
        }
        feed(run, packets);
        run.now_us += 10'000;
    }
}

void feed_as_it_is(fuzz_run& run, fuzz_input& input)
{
    while (!input.empty()) {
        const auto head = input.number<uint8_t>();
        feed(run, input.take(size_t{8} * head));
        run.now_us += 5'000;
        if (head % 16 == 1) {
            run.now_us += int64_t{100'000} * head;
            prepare_pause(run.preparer, run.now_us);
            take_output(run);
        }
    }
}

void describe(std::span<const uint8_t> stream)
{
    const auto describer = std::make_unique<stream_describer>();
    std::vector<uint8_t> bytes(stream.begin(), stream.end());
    require(describe_bytes(*describer, bytes, more_input::none) == bytes.size());
    end_description(*describer, true);
    for (const int frag_duration : {1, 20}) {
        require(description_as_text(describer->description, frag_duration).ends_with('\n'));
        require(description_as_json(describer->description, frag_duration).ends_with("}\n"));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    if (size != 0 && (data[0] & 0x20) != 0) {
        describe(input.rest().subspan(1));
        return 0;
    }
    const auto run = std::make_unique<fuzz_run>();
    bool live = true;
    bool in_sync = true;
    size_t times = 1;
    const prepare_options options = read_options(input, live, in_sync, times);
    start_preparer(run->preparer, options, live);
    if (in_sync)
        feed_in_sync(*run, input, times);
    else
        feed_as_it_is(*run, input);
    prepare_end(run->preparer, run->rest, run->now_us);
    take_output(*run);

    const prepare_counters& counters = run->preparer.counters;
    require(run->packets_out == counters.output_packets);
    require(counters.output_packets + counters.dropped_packets ==
            counters.input_packets + counters.table_packets);
    require(!in_sync || counters.skipped_bytes == 0);
    require(run->preparer.waiting.packets == 0 && run->preparer.beginning.packets == 0);
    return 0;
}
