// One field of CEA-608: pairs of bytes with any parity, and time between them.

#include "fuzz/caption_checks.hpp"
#include "fuzz/fuzz_input.hpp"
#include "tools/captions/cea608.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    cea608_field field;
    for (int64_t time = 0; !input.empty(); time += step(input)) {
        field.advance(time);
        field.take(time, input.number<uint8_t>(), input.number<uint8_t>());
    }
    field.forget();
    for (const cea608_channel& channel : field.channels)
        check_cues(channel.cues.cues);
    return 0;
}
