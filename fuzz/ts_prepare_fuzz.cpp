// The whole of vorn_ts_prepare between bytes in and bytes out: framing, RTP, tables, one programme,
// the clock; in pieces and pauses that the input chooses. And what it says of a stream.

#include <array>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "tools/ts_prepare/description_text.hpp"
#include "tools/ts_prepare/stream_preparer.hpp"

namespace
{

struct fuzz_run {
    stream_preparer preparer;
    std::vector<uint8_t> rest; // not taken yet
    int64_t now_us = 0;
    uint64_t packets_out = 0;
};

prepare_options read_options(fuzz_input& input, bool& live, bool& in_sync)
{
    prepare_options options;
    const auto flags = input.number<uint8_t>();
    live = (flags & 0x01) != 0;
    in_sync = (flags & 0x02) != 0;
    options.keep_time = (flags & 0x04) != 0;
    if ((flags & 0x08) != 0)
        options.programme = uint16_t{1};
    options.drop_service_information = (flags & 0x10) != 0;
    options.table_bytes = 10000;
    return options;
}

// Every byte that goes out is read, and it is in packets.
void take_output(fuzz_run& run)
{
    std::vector<uint8_t> out;
    for (const iovec& piece : run.preparer.output.pieces) {
        const auto* const bytes = static_cast<const uint8_t*>(piece.iov_base);
        out.insert(out.end(), bytes, bytes + piece.iov_len);
    }
    require(out.size() == run.preparer.output.bytes && out.size() % ts_packet_bytes == 0);
    for (size_t at = 0; at < out.size(); at += ts_packet_bytes)
        require(out[at] == ts_sync_byte);
    run.packets_out += out.size() / ts_packet_bytes;
    clear_sent(run.preparer);
    require(run.preparer.waiting.packets <= 2 * waiting_most_packets);
    require(run.preparer.beginning.packets <= beginning_most_packets);
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
}

void feed_in_sync(fuzz_run& run, fuzz_input& input)
{
    std::vector<uint8_t> packets;
    while (!input.empty()) {
        std::array<uint8_t, ts_packet_bytes> packet{};
        std::ranges::copy(input.take(packet.size()), packet.begin());
        packet[0] = ts_sync_byte;
        packets.insert(packets.end(), packet.begin(), packet.end());
        if (packets.size() >= 7 * ts_packet_bytes || input.empty()) {
            feed(run, packets);
            packets.clear();
            run.now_us += 10'000;
        }
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
    const prepare_options options = read_options(input, live, in_sync);
    start_preparer(run->preparer, options, live);
    if (in_sync)
        feed_in_sync(*run, input);
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
