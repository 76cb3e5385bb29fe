#include "tools/captions/start_code_units.hpp"

#include <algorithm>

#include "toolkit/start_code.hpp"

namespace
{

constexpr size_t prefix_bytes = 3; // 0x000001

} // namespace

void start_code_units::drop()
{
    begin_unit(unit_part::none);
    last_bytes = UINT32_MAX;
}

void start_code_units::begin_unit(unit_part wanted)
{
    unit.clear();
    unit_bytes = 0;
    part = wanted;
}

void start_code_units::gather(std::span<const uint8_t> bytes)
{
    if (part == unit_part::none)
        return;
    unit_bytes += bytes.size();
    if (part == unit_part::start)
        bytes = bytes.first(std::min(bytes.size(), unit_start_bytes - unit.size()));
    else if (unit_bytes > largest_unit_bytes) {
        begin_unit(unit_part::none);
        return;
    }
    unit.insert(unit.end(), bytes.begin(), bytes.end());
}

// Where the next code byte stands in bytes[at...], or the end. Only the first bytes can follow a
// prefix that began in an earlier piece.
size_t start_code_units::next_code(std::span<const uint8_t> bytes, size_t at)
{
    for (; at < std::min(bytes.size(), prefix_bytes); ++at) {
        last_bytes = (last_bytes << 8) | bytes[at];
        if ((last_bytes >> 8) == 1)
            return at;
    }
    if (bytes.size() <= prefix_bytes)
        return bytes.size();

    const uint8_t* const end = bytes.data() + bytes.size();
    const uint8_t* const from = bytes.data() + (at >= prefix_bytes + 1 ? at - 1 : 0);
    const uint8_t* const prefix = find_start_code_prefix(from, end);
    if (end - prefix > static_cast<std::ptrdiff_t>(prefix_bytes))
        return static_cast<size_t>(prefix - bytes.data()) + prefix_bytes;
    for (size_t i = bytes.size() - 4; i < bytes.size(); ++i)
        last_bytes = (last_bytes << 8) | bytes[i];
    return bytes.size();
}
