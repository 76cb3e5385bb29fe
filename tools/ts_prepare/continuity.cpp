#include "tools/ts_prepare/continuity.hpp"

namespace
{

bool announces_discontinuity(const mpeg_ts_packet& pkt)
{
    const uint8_t* const field = pkt.raw + ts_header_bytes;
    return (pkt.adaptation_field_control & ts_adaptation_field_bit) != 0 && field[0] != 0 &&
           (field[1] & 0x80) != 0;
}

} // namespace

bool continues(continuity_check& check, const mpeg_ts_packet& pkt)
{
    if (pkt.pid == ts_null_pid)
        return true;
    continuity_check::pid_state& state = check.pids[pkt.pid];
    const continuity_check::pid_state before = state;
    const bool counts = pkt.payload != nullptr;
    const bool repeats = counts && before.known && pkt.continuity_counter == before.counter;
    state = {.known = true, .repeated = repeats, .counter = pkt.continuity_counter};
    if (!before.known || announces_discontinuity(pkt))
        return true;
    if (!counts)
        return pkt.continuity_counter == before.counter;
    if (repeats)
        return !before.repeated;
    return pkt.continuity_counter == ((before.counter + 1) & 0x0F);
}
