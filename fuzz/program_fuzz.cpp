// The whole program over an in-memory window: options, waiting cues and the stream come from the
// input, the output goes to a temporary directory.
//
// --separate-streams is left out: with it a PMT that is too large for one packet aborts the program
// on purpose, and a fuzzer would find nothing else.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz/fuzz_input.hpp"
#include "v2/captions/caption_intake.hpp"
#include "v2/input.hpp"
#include "v2/packet_dispatch.hpp"
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

cmdopts read_options(fuzz_input& input)
{
    cmdopts opts;
    const auto flags = input.number<uint8_t>();
    opts.no_padding = (flags & 0x01) != 0;
    opts.start_pat_pmt = (flags & 0x02) != 0;
    opts.pat_nit_not_first = (flags & 0x04) != 0;
    opts.no_multilevel = (flags & 0x08) != 0;
    opts.sap = (flags & 0x10) != 0;
    opts.frag_duration = 1 + input.number<uint8_t>() % 20;
    opts.frag_backlog = 1 + input.number<uint8_t>() % 4;
    return opts;
}

void queue_cues(fuzz_input& input, const cmdopts& opts)
{
    for (unsigned count = input.number<uint8_t>() % 8; count > 0 && !opts.no_multilevel; count--) {
        vtt_cue cue;
        cue.mpeg_timestamp = input.number<uint64_t>();
        cue.start = input.number<int32_t>();
        cue.end = input.number<int32_t>();
        cue.now = input.number<int8_t>();
        cue.text = input.text();
        vtt_queues[count % 2 == 0 ? "eng" : "v1"].push_back(std::move(cue));
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
        if (!synchronise(in_mts))
            continue;
        if (!process_packets(bundle, in_mts, pm, opts))
            break;
    }
    require(bundle.main_out.m3u8.entries.size() <= static_cast<size_t>(opts.frag_backlog) + 3);
}

void forget_process_wide_state()
{
    vtt_queues.clear();
    vtt_outputs.clear();
    audio_group.clear();
    captions_group.clear();
    subtitles_group.clear();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    enter_scratch_directory();
    fuzz_input input(data, size);
    const cmdopts opts = read_options(input);
    queue_cues(input, opts);
    run(opts, input.rest());
    forget_process_wide_state();
    empty_scratch_directory();
    return 0;
}
