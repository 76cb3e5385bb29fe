#include "tools/caption_feed/utf8.hpp"

#include <cstddef>
#include <cstdint>

namespace
{

constexpr std::string_view replacement = "\xEF\xBF\xBD"; // U+FFFD

// What a lead byte demands (Unicode, table 3-7): the bytes that follow it, and the range of the
// first of them; the others are in 80..BF.
struct lead {
    size_t following;
    uint8_t low, high;
};

constexpr lead no_lead = {.following = 0, .low = 0, .high = 0};

lead lead_of(uint8_t byte)
{
    if (byte >= 0xC2 && byte <= 0xDF)
        return {.following = 1, .low = 0x80, .high = 0xBF};
    if (byte >= 0xE0 && byte <= 0xEF)
        return {.following = 2,
                .low = static_cast<uint8_t>(byte == 0xE0 ? 0xA0 : 0x80),   // not overlong
                .high = static_cast<uint8_t>(byte == 0xED ? 0x9F : 0xBF)}; // no surrogate
    if (byte >= 0xF0 && byte <= 0xF4)
        return {.following = 3,
                .low = static_cast<uint8_t>(byte == 0xF0 ? 0x90 : 0x80),   // not overlong
                .high = static_cast<uint8_t>(byte == 0xF4 ? 0x8F : 0xBF)}; // up to U+10FFFF
    return no_lead;
}

// The length of the well-formed start of the sequence at the front; `whole` when it is all of it.
size_t sequence_length(std::string_view bytes, bool& whole)
{
    lead expected = lead_of(static_cast<uint8_t>(bytes[0]));
    size_t n = 1;
    while (n <= expected.following && n < bytes.size()) {
        const auto byte = static_cast<uint8_t>(bytes[n]);
        if (byte < expected.low || byte > expected.high)
            break;
        expected.low = 0x80;
        expected.high = 0xBF;
        ++n;
    }
    whole = expected.following != 0 && n == expected.following + 1;
    return n;
}

} // namespace

std::string repaired_utf8(std::string_view bytes)
{
    std::string text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const auto byte = static_cast<uint8_t>(bytes[0]);
        if (byte != 0 && byte < 0x80) {
            text += bytes[0];
            bytes.remove_prefix(1);
            continue;
        }
        bool whole = false;
        const size_t n = sequence_length(bytes, whole);
        text += whole ? bytes.substr(0, n) : replacement;
        bytes.remove_prefix(n);
    }
    return text;
}
