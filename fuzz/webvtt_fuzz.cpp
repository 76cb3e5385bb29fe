// The placement of cues, and the text that they become.

#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "v2/captions/cue_placement.hpp"
#include "v2/captions/webvtt_text.hpp"

namespace
{

vtt_cue read_cue(fuzz_input& input)
{
    vtt_cue cue;
    cue.mpeg_timestamp = input.number<uint64_t>();
    cue.start = input.number<int64_t>();
    cue.end = input.number<int64_t>();
    cue.now = input.number<int8_t>();
    cue.cue_settings = input.text();
    cue.text = input.text();
    return cue;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    const int64_t ref_pts = input.number<uint32_t>();
    const int64_t window_end = ref_pts + input.number<uint32_t>();
    require(webvtt_header(input.text(), ref_pts).ends_with("\n\n"));

    std::vector<vtt_cue> cues;
    while (!input.empty())
        cues.push_back(read_cue(input));

    int64_t last_end_ms = -1;
    for (size_t i = 0; i < cues.size(); i++) {
        const vtt_cue* next = i + 1 < cues.size() ? &cues[i + 1] : nullptr;
        const int64_t end_before = last_end_ms;
        const auto times = place_cue(cues[i], next, ref_pts, window_end, last_end_ms);
        if (!times)
            break;
        require(times->start >= 0 && times->start >= end_before);
        require(times->end >= times->start + 33);
        require(last_end_ms >= end_before && last_end_ms >= times->end);

        const std::string block =
            webvtt_cue_block(times->start, times->end, cues[i].cue_settings, cues[i].text);
        require(block.ends_with("\n\n"));
        require(block.find("\n\n") == block.size() - 2 ||
                cues[i].cue_settings.find('\n') != std::string::npos);
    }
    return 0;
}
