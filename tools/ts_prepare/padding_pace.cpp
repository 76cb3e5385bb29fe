#include "tools/ts_prepare/padding_pace.hpp"

#include <algorithm>

#include "toolkit/ts/ts_packet.hpp"

namespace
{

// What the rate brings in this time is the most that is made up for, in either direction.
constexpr int64_t memory_us = 100'000;

constexpr int64_t credit_per_byte = 8 * 1'000'000;
constexpr int64_t credit_per_packet = credit_per_byte * static_cast<int64_t>(ts_packet_bytes);

} // namespace

size_t padding_due(padding_pace& pace, int64_t now_us, size_t sent_bytes)
{
    const int64_t most = pace.bits_per_second * memory_us;
    const int64_t elapsed_us =
        pace.last_us < 0 ? 0 : std::clamp(now_us - pace.last_us, int64_t{0}, memory_us);
    pace.last_us = now_us;

    // So much was sent that no more of it counts; the product below stays within its range.
    const auto counted_bytes = static_cast<int64_t>(std::min(sent_bytes, size_t{1} << 32));
    pace.credit += pace.bits_per_second * elapsed_us - counted_bytes * credit_per_byte;
    pace.credit = std::clamp(pace.credit, -most, most);
    if (pace.credit < credit_per_packet)
        return 0;
    const auto credit = static_cast<size_t>(pace.credit / credit_per_packet);
    const size_t packets = std::min(credit, pace.most_packets);
    pace.credit -= static_cast<int64_t>(packets) * credit_per_packet;
    return packets;
}
