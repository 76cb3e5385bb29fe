#include "tests/support/caption_packet.hpp"

#include <bit>
#include <utility>

namespace
{

void append_be16(byte_string& out, uint16_t value)
{
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

void append_be32(byte_string& out, uint32_t value)
{
    append_be16(out, static_cast<uint16_t>(value >> 16));
    append_be16(out, static_cast<uint16_t>(value));
}

} // namespace

byte_string big_endian_bytes(uint64_t value)
{
    byte_string bytes;
    append_be32(bytes, static_cast<uint32_t>(value >> 32));
    append_be32(bytes, static_cast<uint32_t>(value));
    return bytes;
}

caption_pair text_pair(std::string name, std::string_view text)
{
    return {.type = 0, .name = std::move(name), .value = bytes_of(text)};
}

caption_pair unsigned_pair(std::string name, uint64_t value)
{
    return {.type = 2, .name = std::move(name), .value = big_endian_bytes(value)};
}

caption_pair signed_pair(std::string name, int64_t value)
{
    return {.type = 5,
            .name = std::move(name),
            .value = big_endian_bytes(std::bit_cast<uint64_t>(value))};
}

byte_string build_caption_packet(const caption_packet& packet)
{
    byte_string body = bytes_of(packet.command);
    for (const caption_pair& pair : packet.pairs) {
        body.push_back(pair.type);
        body.push_back(static_cast<uint8_t>(pair.name.size()));
        append_be16(body, 0); // reserved
        append_be32(body, static_cast<uint32_t>(pair.value.size()));
        append(body, bytes_of(pair.name));
        append(body, pair.value);
    }

    byte_string bytes = bytes_of("VORN");
    bytes.push_back(1); // version
    bytes.push_back(packet.status);
    bytes.push_back(static_cast<uint8_t>(packet.command.size()));
    bytes.push_back(static_cast<uint8_t>(packet.pairs.size()));
    append_be32(bytes, static_cast<uint32_t>(body.size()));
    append(bytes, body);
    return bytes;
}

byte_string build_cue_event(const cue_event& cue)
{
    caption_packet packet{
        .pairs = {unsigned_pair("service", cue.service),
                  unsigned_pair("mpeg timestamp", static_cast<uint64_t>(cue.at_ms * 90)),
                  signed_pair("start", cue.at_ms), signed_pair("end", cue.at_ms + cue.length_ms),
                  text_pair("text", cue.text)}};
    if (!cue.open)
        packet.pairs.push_back(signed_pair("now", cue.at_ms));
    if (!cue.language.empty())
        packet.pairs.push_back(text_pair("language", cue.language));
    if (!cue.settings.empty())
        packet.pairs.push_back(text_pair("cue settings", cue.settings));
    return build_caption_packet(packet);
}
