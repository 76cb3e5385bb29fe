// Takes out of an elementary stream the few units that matter and passes over all else, however the
// stream is cut into pieces. A unit is what stands between two start codes: a NAL unit of H.264, or
// a header, user data or a slice of MPEG video.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

constexpr size_t largest_unit_bytes = 65536; // a larger one is passed over
constexpr size_t unit_start_bytes = 256;

// What is wanted of a unit.
enum class unit_part {
    none,
    start, // at most its first unit_start_bytes, as soon as they have come
    whole,
    end, // nothing, and nothing of those that follow
};

struct start_code_units {
    // The next bytes. `part_of` is given the byte behind a start code. What `on_unit` is given
    // begins with that byte, and is valid during the call. False when a unit was the end.
    template <typename PartOf, typename OnUnit>
    [[nodiscard]] bool feed(std::span<const uint8_t> bytes, PartOf&& part_of, OnUnit&& on_unit);

    // No more bytes belong to the unit at hand.
    template <typename OnUnit>
    void finish(OnUnit&& on_unit);

    // Drops the unit at hand; what comes next begins in the middle of anything.
    void drop();

    std::vector<uint8_t> unit; // the one at hand, as far as it is wanted and has come
    unit_part part = unit_part::none;
    size_t unit_bytes = 0;            // of it that have come
    uint32_t last_bytes = UINT32_MAX; // the last 4 of the stream

    void begin_unit(unit_part wanted);
    void gather(std::span<const uint8_t> bytes);
    size_t next_code(std::span<const uint8_t> bytes, size_t at);
};

template <typename PartOf, typename OnUnit>
bool start_code_units::feed(std::span<const uint8_t> bytes, PartOf&& part_of, OnUnit&& on_unit)
{
    size_t begin = 0; // of what belongs to the unit at hand
    for (size_t at = 0;;) {
        const size_t code = next_code(bytes, at);
        gather(bytes.subspan(begin, code - begin));
        constexpr size_t prefix_bytes = 3; // 0x000001 has been gathered with the unit
        if (code == bytes.size()) {
            if (part == unit_part::start && unit_bytes >= unit_start_bytes + prefix_bytes) {
                on_unit(std::span<const uint8_t>(unit));
                begin_unit(unit_part::none);
            }
            return true;
        }
        if (part != unit_part::none && unit_bytes >= prefix_bytes) {
            unit.resize(std::min(unit.size(), unit_bytes - prefix_bytes));
            finish(on_unit);
        }
        begin_unit(part_of(bytes[code]));
        if (part == unit_part::end) {
            drop();
            return false;
        }
        begin = code;
        at = code + 1;
    }
}

template <typename OnUnit>
void start_code_units::finish(OnUnit&& on_unit)
{
    if (part != unit_part::none && !unit.empty())
        on_unit(std::span<const uint8_t>(unit));
    drop();
}
