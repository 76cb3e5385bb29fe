#include "toolkit/ts/section_gatherer.hpp"

#include <algorithm>

#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/psi_section.hpp"

namespace
{

constexpr uint8_t stuffing_byte = 0xFF; // where a table_id would be: no further section follows

size_t section_bytes(const uint8_t* section)
{
    return psi_bytes_before_length_counts + size_t{psi_section_length(section)};
}

bool is_sound(std::span<const uint8_t> section, bool takes_short_form)
{
    const bool long_form = (section[1] & 0x80) != 0; // section_syntax_indicator
    const uint16_t least = long_form ? psi_min_section_length : crc32_bytes;
    return (long_form || takes_short_form) && psi_section_length(section.data()) >= least &&
           crc32_mpeg2(section.data(), section.data() + section.size()) == 0;
}

// Moves up to so many bytes as make the section `wanted` long.
void move_bytes(std::vector<uint8_t>& section, std::span<const uint8_t>& from, size_t wanted)
{
    const size_t missing = wanted - std::min(wanted, section.size());
    const auto taken = from.first(std::min(missing, from.size()));
    section.insert(section.end(), taken.begin(), taken.end());
    from = from.subspan(taken.size());
}

// Takes bytes of the section that is being gathered; what is left belongs to the next one.
void gather(ts_section_gatherer& gatherer, std::span<const uint8_t>& bytes)
{
    std::vector<uint8_t>& section = gatherer.section;
    move_bytes(section, bytes, psi_bytes_before_length_counts);
    if (section.size() < psi_bytes_before_length_counts)
        return;
    move_bytes(section, bytes, section_bytes(section.data()));
    if (section.size() < section_bytes(section.data()))
        return;

    gatherer.begun = false;
    if (is_sound(section, gatherer.takes_short_form))
        gatherer.complete.insert(gatherer.complete.end(), section.begin(), section.end());
}

void gather_all(ts_section_gatherer& gatherer, std::span<const uint8_t> bytes)
{
    while (!bytes.empty() && bytes.front() != stuffing_byte) {
        gatherer.section.clear();
        gatherer.begun = true;
        gather(gatherer, bytes);
    }
}

} // namespace

void ts_section_gatherer_take(ts_section_gatherer& gatherer, const mpeg_ts_packet& pkt)
{
    gatherer.complete.clear();
    if (pkt.payload == nullptr || pkt.payload == pkt.payload_end)
        return;
    std::span<const uint8_t> bytes(pkt.payload, pkt.payload_end);
    if (!pkt.payload_unit_start) {
        if (gatherer.begun) {
            gather(gatherer, bytes);
            if (!gatherer.begun)
                gather_all(gatherer, bytes);
        }
        return;
    }

    const size_t pointer_field = bytes.front();
    bytes = bytes.subspan(1);
    if (pointer_field >= bytes.size()) {
        gatherer.begun = false;
        return;
    }
    std::span<const uint8_t> end_of_last = bytes.first(pointer_field);
    if (gatherer.begun)
        gather(gatherer, end_of_last);
    gatherer.begun = false;
    gather_all(gatherer, bytes.subspan(pointer_field));
}

std::span<const uint8_t> ts_next_section(std::span<const uint8_t>& rest)
{
    if (rest.empty())
        return {};
    const auto section = rest.first(section_bytes(rest.data()));
    rest = rest.subspan(section.size());
    return section;
}
