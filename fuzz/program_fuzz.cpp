// The whole program over an in-memory window: options, caption packets and the stream come from the
// input, the output goes to a temporary directory.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "toolkit/comm/comm_packet_builder.hpp"
#include "toolkit/comm/comm_sender.hpp"
#include "v2/base/assertion.hpp"
#include "v2/captions/caption_intake.hpp"
#include "v2/demux/packet_dispatch.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/hls/hls_bundle.hpp"
#include "v2/input.hpp"
#include "v2/playlist/rendition_groups.hpp"

namespace
{

// In memory where there is such a place: a run makes and removes files all the time. Removed at
// exit.
struct scratch_directory {
    scratch_directory()
    {
        const bool in_memory = std::filesystem::is_directory("/dev/shm");
        std::string name = std::string(in_memory ? "/dev/shm" : "/tmp") + "/vorn_fuzz.XXXXXX";
        require(mkdtemp(name.data()) != nullptr);
        path = name;
        std::filesystem::current_path(path);
    }
    ~scratch_directory() { std::filesystem::remove_all(path); }
    std::filesystem::path path;
};

void enter_scratch_directory()
{
    static const scratch_directory scratch;
}

void empty_scratch_directory()
{
    for (const auto& entry : std::filesystem::directory_iterator("."))
        std::filesystem::remove_all(entry);
}

// With separate streams a PMT that is too large for one packet ends the program on purpose. Here it
// ends the run.
struct table_too_large {
};

struct run_options {
    cmdopts opts;
    bool raw_captions = false; // bytes as they are, not packets made of the input's numbers
};

run_options read_options(fuzz_input& input)
{
    run_options options;
    cmdopts& opts = options.opts;
    const auto flags = input.number<uint8_t>();
    opts.no_padding = (flags & 0x01) != 0;
    opts.start_pat_pmt = (flags & 0x02) != 0;
    opts.pat_nit_not_first = (flags & 0x04) != 0;
    opts.no_multilevel = (flags & 0x08) != 0;
    opts.sap = (flags & 0x10) != 0;
    opts.separate_streams = (flags & 0x20) != 0;
    options.raw_captions = (flags & 0x40) != 0;
    opts.frag_duration = 1 + input.number<uint8_t>() % 20;
    opts.frag_backlog = 1 + input.number<uint8_t>() % 4;
    return options;
}

std::vector<uint8_t> read_caption_packet(fuzz_input& input, bool with_language)
{
    comm_packet_builder packet;
    require(packet.begin("vtt") && packet.add_uint64("service", 2) &&
            packet.add_uint64("mpeg timestamp", input.number<uint64_t>()) &&
            packet.add_int64("start", input.number<int32_t>()) &&
            packet.add_int64("end", input.number<int32_t>()) &&
            packet.add_int64("now", input.number<int8_t>()));
    std::ignore = packet.add_text("text", input.text()); // has none if there is a NUL in it
    if (with_language)
        require(packet.add_text("language", "eng"));
    return packet.wire;
}

void send_captions(fuzz_input& input, bool raw, comm_sender& sender)
{
    for (unsigned count = input.number<uint8_t>() % 8; count > 0; count--) {
        if (raw)
            std::ignore = sender.send(input.take(input.number<uint8_t>()));
        else
            std::ignore = sender.send(read_caption_packet(input, count % 2 == 0));
    }
}

void run(const cmdopts& opts, std::span<const uint8_t> stream)
{
    HLSbundle bundle;
    PIDmap pm;
    pm.eof = true; // all of the input is in the window
    configure_bundle(bundle, opts);
    register_psi(pm, ts_pat_pid, psi_kind_pat);

    const sliding_window_v4_ptr window{sliding_window_v4_create_buffer(stream.size() + 1)};
    sliding_window_v4* in_mts = window.get();
    in_mts->end = std::ranges::copy(stream, in_mts->data).out;
    while (in_mts->end - in_mts->data >= static_cast<std::ptrdiff_t>(ts_packet_bytes)) {
        // A run of few packets has few passes, so that each may take several captions.
        for (int i = 0; i < 4; i++)
            if (!check_socket(opts))
                return;
        if (!synchronise(in_mts))
            continue;
        if (!process_packets(bundle, in_mts, pm, opts))
            break;
    }
    require(bundle.main_out.m3u8.entries.size() <= static_cast<size_t>(opts.frag_backlog) + 3);
}

void forget_process_wide_state()
{
    caption_socket.reset();
    vtt_queues.clear();
    vtt_outputs.clear();
    audio_group.clear();
    captions_group.clear();
    subtitles_group.clear();
}

} // namespace

// In the place of the program's own.
void assertion_failed(const char* expression, unsigned line, const char* function)
{
    if (std::string_view(function).find("io_proc_ts_packet_on_pmt") != std::string_view::npos)
        throw table_too_large();
    std::fprintf(stderr, "%s:%u: %s\n", function, line, expression);
    std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    enter_scratch_directory();
    fuzz_input input(data, size);
    const run_options options = read_options(input);

    comm_sender sender;
    int receivers_end = -1;
    require(comm_sender_open(sender, receivers_end));
    caption_socket.reset(comm_socket_v4_create());
    require(comm_socket_v4_connect_use_socketpair(caption_socket.get(), receivers_end) >= 0);
    send_captions(input, options.raw_captions, sender);
    try {
        run(options.opts, input.rest());
    } catch (const table_too_large&) {
    }
    forget_process_wide_state();
    empty_scratch_directory();
    return 0;
}
