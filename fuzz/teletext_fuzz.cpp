// Two pages out of the payloads of teletext's PES packets; libzvbi takes part.

#include "fuzz/caption_checks.hpp"
#include "fuzz/fuzz_input.hpp"
#include "tools/captions/teletext_stream.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    teletext_stream stream;
    stream.want(0x888);
    stream.want(0x100);
    for (int64_t time = 0; !input.empty(); time += step(input)) {
        stream.advance(time);
        if (input.number<uint8_t>() == 0xFF)
            stream.lose_packets();
        stream.take(time, input.take(input.number<uint16_t>() & 0x3FF));
    }
    stream.forget();
    for (const auto& [number, page] : stream.pages)
        check_cues(page.cues.cues);
    return 0;
}
