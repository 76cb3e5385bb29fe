// A service of CEA-708: packets with blocks in them, or the blocks without the packets.

#include <span>

#include "fuzz/caption_checks.hpp"
#include "fuzz/fuzz_input.hpp"
#include "tools/captions/cea708.hpp"
#include "tools/captions/cea708_packets.hpp"

namespace
{

void decode_cea708(fuzz_input& input)
{
    cea708_packets packets;
    cea708_service service;
    int64_t time = 0;
    for (; !input.empty(); time += step(input)) {
        service.advance(time);
        const auto type =
            (input.number<uint8_t>() & 7) == 0 ? cc_type::dtvcc_start : cc_type::dtvcc_data;
        packets.take(
            {.type = type, .first = input.number<uint8_t>(), .second = input.number<uint8_t>()},
            [&] { service.reset(time); },
            [&](int, std::span<const uint8_t> block) { service.take(time, block); });
    }
    service.forget();
    check_cues(service.cues.cues);
}

// A block at a time, without the packets around it.
void decode_cea708_blocks(fuzz_input& input)
{
    cea708_service service;
    for (int64_t time = 0; !input.empty(); time += step(input))
        service.take(time, input.take(input.number<uint8_t>() & 0x1F));
    service.forget();
    check_cues(service.cues.cues);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    if (input.number<uint8_t>() == 0)
        decode_cea708(input);
    else
        decode_cea708_blocks(input);
    return 0;
}
