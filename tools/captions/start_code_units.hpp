// Takes out of an elementary stream the few units that matter and passes over all else, however the
// stream is cut into pieces. A unit is what stands between two start codes: a NAL unit of H.264, or
// a header, user data or a slice of MPEG video.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

constexpr size_t largest_unit_bytes = 65536; // a larger one is passed over

struct start_code_units {
    // Whether a unit with this byte behind its start code is wanted.
    using is_wanted = bool (*)(uint8_t code);

    // The next bytes. What `on_unit` is given begins with the code byte, and is valid during the
    // call.
    template <typename OnUnit>
    void feed(std::span<const uint8_t> bytes, is_wanted wanted, OnUnit&& on_unit);

    // No more bytes belong to the unit at hand.
    template <typename OnUnit>
    void finish(OnUnit&& on_unit);

    // Drops the unit at hand; what comes next begins in the middle of anything.
    void drop();

    std::vector<uint8_t> unit; // the one at hand, as far as it has come
    bool gathering = false;
    uint32_t last_bytes = UINT32_MAX; // the last 4 of the stream

    void gather(std::span<const uint8_t> bytes);
    size_t next_code(std::span<const uint8_t> bytes, size_t at);
};

template <typename OnUnit>
void start_code_units::feed(std::span<const uint8_t> bytes, is_wanted wanted, OnUnit&& on_unit)
{
    size_t begin = 0; // of what belongs to the unit at hand
    for (size_t at = 0;;) {
        const size_t code = next_code(bytes, at);
        gather(bytes.subspan(begin, code - begin));
        if (code == bytes.size())
            return;
        constexpr size_t prefix_bytes = 3; // 0x000001 has been gathered with the unit
        if (gathering && unit.size() >= prefix_bytes) {
            unit.resize(unit.size() - prefix_bytes);
            finish(on_unit);
        }
        unit.clear();
        gathering = wanted(bytes[code]);
        begin = code;
        at = code + 1;
    }
}

template <typename OnUnit>
void start_code_units::finish(OnUnit&& on_unit)
{
    if (gathering && !unit.empty())
        on_unit(std::span<const uint8_t>(unit));
    drop();
}
