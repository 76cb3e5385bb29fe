#include "tools/ts_prepare/packet_framing.hpp"

#include <algorithm>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/ts_packet.hpp"

namespace
{

constexpr size_t sync_bytes_wanted = 5; // in a row, before they are believed to be packets
constexpr size_t rtp_fixed_bytes = 12;
constexpr uint8_t rtp_payload_type_mp2t = 33;
constexpr size_t rtp_most_bytes = 2048; // of a header: more does not fit a datagram with packets
constexpr size_t rtp_most_padding = 255;
constexpr size_t rtp_most_packets = 65535 / ts_packet_bytes; // in a datagram
constexpr size_t no_rtp_header = SIZE_MAX;

struct framing_candidate {
    packet_format format;
    size_t stride;
};

constexpr framing_candidate candidates[] = {
    {packet_format::plain, ts_packet_bytes},
    {packet_format::bytes_192, 192},
    {packet_format::bytes_204, 204},
};

size_t bytes_between(packet_format format)
{
    for (const framing_candidate& candidate : candidates)
        if (candidate.format == format)
            return candidate.stride - ts_packet_bytes;
    return 0;
}

enum class match { no, perhaps, yes };

// RTP header, RFC 3550, 5.1
//   byte 0      version:2 padding:1 extension:1 CSRC count:4
//   byte 1      marker:1 payload type:7
//   bytes 2-3   sequence number
//   bytes 4-7   timestamp
//   bytes 8-11  SSRC
//   then        CSRC count words; if extension: 16 bits, length in words:16, words
bool may_be_rtp(std::span<const uint8_t> bytes)
{
    return (bytes[0] & 0xC0) == 0x80 &&
           (bytes.size() < 2 || (bytes[1] & 0x7F) == rtp_payload_type_mp2t);
}

// The length of the RTP header at the front: 0 while that cannot be told, no_rtp_header when it is
// out of all reason.
size_t rtp_header_bytes(std::span<const uint8_t> bytes)
{
    if (bytes.size() < rtp_fixed_bytes)
        return 0;
    const bool has_extension = (bytes[0] & 0x10) != 0;
    size_t length = rtp_fixed_bytes + size_t{4} * (bytes[0] & 0x0F);
    if (!has_extension)
        return length;
    if (bytes.size() < length + 4)
        return 0;
    length += 4 + size_t{4} * load_be16(bytes.data() + length + 2);
    return length <= rtp_most_bytes ? length : no_rtp_header;
}

match match_stride(std::span<const uint8_t> bytes, size_t stride)
{
    for (size_t k = 0; k < sync_bytes_wanted; k++) {
        if (k * stride >= bytes.size())
            return match::perhaps;
        if (bytes[k * stride] != ts_sync_byte)
            return match::no;
    }
    return match::yes;
}

// A header, then packets, among which further headers may stand.
match match_rtp(std::span<const uint8_t> bytes)
{
    if (!may_be_rtp(bytes))
        return match::no;
    size_t syncs = 0;
    while (syncs < sync_bytes_wanted) {
        if (bytes.empty())
            return match::perhaps;
        if (bytes[0] == ts_sync_byte) {
            syncs++;
            bytes = bytes.subspan(std::min(ts_packet_bytes, bytes.size()));
            continue;
        }
        if (!may_be_rtp(bytes))
            return match::no;
        const size_t header = rtp_header_bytes(bytes);
        if (header == no_rtp_header)
            return match::no;
        if (header == 0 || header >= bytes.size())
            return match::perhaps;
        bytes = bytes.subspan(header);
        if (bytes[0] != ts_sync_byte)
            return match::no;
    }
    return match::yes;
}

// The format of what begins at the front of `bytes`, as far as that can be told.
match match_any(std::span<const uint8_t> bytes, packet_format& format)
{
    if (const match found = match_rtp(bytes); found != match::no) {
        format = packet_format::rtp;
        return found;
    }
    if (bytes[0] != ts_sync_byte)
        return match::no;
    match best = match::no;
    for (const framing_candidate& candidate : candidates) {
        const match found = match_stride(bytes, candidate.stride);
        if (found > best) {
            best = found;
            format = candidate.format;
        }
    }
    return best;
}

bool may_begin(uint8_t byte)
{
    return byte == ts_sync_byte || (byte & 0xC0) == 0x80;
}

framing_step search(packet_framing& framing, std::span<uint8_t> bytes, more_input more)
{
    size_t at = 0;
    packet_format format = packet_format::unknown;
    match found = match::no;
    for (; at < bytes.size(); at++) {
        if (!may_begin(bytes[at]))
            continue;
        found = match_any(bytes.subspan(at), format);
        if (found != match::no)
            break;
    }
    if (at != 0)
        return {.event = framing_event::skipped, .consumed = at};
    if (bytes.empty() || (found == match::perhaps && more == more_input::may_come))
        return {};
    // In the middle of a datagram its packets look like plain ones.
    if (format == packet_format::plain && framing.format == packet_format::rtp)
        format = packet_format::rtp;
    framing = {.format = format, .in_sync = true};
    return {.event = framing_event::found};
}

framing_step lose_sync(packet_framing& framing)
{
    framing.in_sync = false;
    return {.event = framing_event::lost};
}

// Padding ends with the number of its bytes, itself included, and the next datagram follows.
framing_step pass_rtp_padding(packet_framing& framing, std::span<uint8_t> bytes, more_input more)
{
    const size_t most = std::min(bytes.size(), rtp_most_padding);
    for (size_t count = 1; count <= most; count++) {
        if (bytes[count - 1] != count)
            continue;
        if (count == bytes.size() && more == more_input::may_come)
            return {};
        if (count == bytes.size() || may_be_rtp(bytes.subspan(count))) {
            framing.padded = false;
            framing.between = count; // it belongs to the format
            return next_framing_step(framing, bytes, more);
        }
    }
    if (bytes.size() <= rtp_most_padding && more == more_input::may_come)
        return {};
    framing.padded = false;
    return lose_sync(framing);
}

framing_step next_rtp_header(packet_framing& framing, std::span<uint8_t> bytes, more_input more)
{
    const size_t header = rtp_header_bytes(bytes);
    if (header == no_rtp_header)
        return lose_sync(framing);
    if (header == 0 || header > bytes.size()) {
        if (more == more_input::may_come)
            return {};
        return {.event = framing_event::skipped, .consumed = bytes.size()};
    }
    framing.padded = (bytes[0] & 0x20) != 0;
    framing.in_datagram = 0;
    return {.event = framing_event::rtp_header,
            .consumed = header,
            .rtp = {.sequence_number = load_be16(bytes.data() + 2),
                    .ssrc = load_be32(bytes.data() + 8)}};
}

} // namespace

const char* packet_format_name(packet_format format)
{
    switch (format) {
    case packet_format::plain:
        return "packets of 188 bytes";
    case packet_format::bytes_192:
        return "packets of 192 bytes";
    case packet_format::bytes_204:
        return "packets of 204 bytes";
    case packet_format::rtp:
        return "RTP";
    case packet_format::unknown:
        break;
    }
    return "no transport stream";
}

framing_step next_framing_step(packet_framing& framing, std::span<uint8_t> bytes, more_input more)
{
    if (!framing.in_sync)
        return search(framing, bytes, more);
    if (framing.between != 0) {
        const size_t passed = std::min(framing.between, bytes.size());
        framing.between -= passed;
        if (framing.between != 0)
            return {.consumed = passed};
        // Not told as skipped: these bytes belong to the format.
        framing_step step = next_framing_step(framing, bytes.subspan(passed), more);
        step.consumed += passed;
        return step;
    }
    if (bytes.empty())
        return {};
    if (bytes[0] == ts_sync_byte) {
        if (bytes.size() < ts_packet_bytes) {
            if (more == more_input::may_come)
                return {};
            return {.event = framing_event::skipped, .consumed = bytes.size()};
        }
        // No datagram holds so many: the headers have ended, and these packets are plain ones.
        if (framing.format == packet_format::rtp && framing.in_datagram++ == rtp_most_packets) {
            framing = {};
            return {.event = framing_event::lost};
        }
        framing.between = bytes_between(framing.format);
        return {.event = framing_event::packet, .at = bytes.data(), .consumed = ts_packet_bytes};
    }
    if (framing.format == packet_format::rtp && may_be_rtp(bytes))
        return next_rtp_header(framing, bytes, more);
    if (framing.padded)
        return pass_rtp_padding(framing, bytes, more);
    return lose_sync(framing);
}
