#include "tests/support/packetiser.hpp"

#include <algorithm>

namespace
{

constexpr size_t header_bytes = 4;

// An adaptation field that makes the packet full with `payload` bytes behind it.
adaptation_fields filling_field(adaptation_fields field, size_t payload)
{
    field.empty = false;
    field.stuffing = 0;
    const size_t wanted = packet_bytes - header_bytes - payload;
    const size_t least = build_adaptation_field(field).size();
    if (wanted < least)
        field.empty = true; // room for the length byte alone
    else
        field.stuffing = wanted - least;
    return field;
}

} // namespace

byte_string packetiser::pes(uint16_t pid, std::span<const uint8_t> unit,
                            const std::optional<adaptation_fields>& first)
{
    byte_string out;
    for (size_t done = 0; done < unit.size();) {
        ts_fields fields{.payload_unit_start = done == 0, .pid = pid};
        if (done == 0)
            fields.adaptation = first;
        const size_t field_bytes =
            fields.adaptation ? build_adaptation_field(*fields.adaptation).size() : 0;
        const size_t room = packet_bytes - header_bytes - field_bytes;
        const size_t count = std::min(room, unit.size() - done);
        if (count < room)
            fields.adaptation =
                filling_field(fields.adaptation.value_or(adaptation_fields{}), count);

        const auto piece = unit.subspan(done, count);
        fields.payload.assign(piece.begin(), piece.end());
        append(out, packet(fields));
        done += count;
    }
    return out;
}

byte_string packetiser::section(uint16_t pid, std::span<const uint8_t> unit)
{
    byte_string out;
    for (size_t done = 0; done < unit.size();) {
        const auto piece =
            unit.subspan(done, std::min(packet_bytes - header_bytes, unit.size() - done));
        append(out, packet({.payload_unit_start = done == 0,
                            .pid = pid,
                            .payload = byte_string(piece.begin(), piece.end())}));
        done += piece.size();
    }
    return out;
}

byte_string packetiser::packet(ts_fields fields)
{
    fields.continuity_counter = next_counter(fields.pid);
    return build_ts_packet(fields);
}

uint8_t packetiser::next_counter(uint16_t pid)
{
    uint8_t& counter = counters_[pid];
    const uint8_t value = counter;
    counter = (counter + 1) & 0x0F;
    return value;
}
