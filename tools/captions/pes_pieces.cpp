#include "tools/captions/pes_pieces.hpp"

#include <algorithm>

#include "toolkit/big_endian.hpp"
#include "toolkit/ts/time_fields.hpp"

namespace
{

// PES_packet()
//   bytes 0-2  packet_start_code_prefix
//   byte 3     stream_id
//   bytes 4-5  PES_packet_length
//   byte 6     '10' PES_scrambling_control:2 and flags
//   byte 7     PTS_DTS_flags:2 and flags
//   byte 8     PES_header_data_length
constexpr size_t fixed_header_bytes = 9;
constexpr size_t bytes_before_length_counts = 6;
constexpr size_t time_stamp_bytes = 5;

bool begins_like_pes(std::span<const uint8_t> header)
{
    return header[0] == 0 && header[1] == 0 && header[2] == 1 && (header[6] & 0xC0) == 0x80;
}

} // namespace

void pes_pieces::drop()
{
    at = state::outside;
    continuity_counter = -1;
}

pes_piece pes_pieces::take(const mpeg_ts_packet& packet)
{
    pes_piece piece;
    if (packet.payload == nullptr)
        return piece;
    const int counter = packet.continuity_counter;
    if (counter == continuity_counter)
        return piece; // sent twice, as is allowed (2.4.3.3)
    const bool is_next = continuity_counter < 0 || counter == ((continuity_counter + 1) & 0x0F);
    continuity_counter = counter;
    piece.lost_before = !is_next;

    const bool is_sound =
        !packet.transport_error_indicator && is_next && packet.transport_scrambling_control == 0;
    if (at != state::outside && (packet.payload_unit_start || !is_sound)) {
        piece.ends_before = at == state::payload;
        at = state::outside;
    }
    if (packet.payload_unit_start && !packet.transport_error_indicator &&
        packet.transport_scrambling_control == 0) {
        at = state::header;
        header.clear();
    }

    std::span<const uint8_t> bytes(packet.payload, packet.payload_end);
    if (at == state::header)
        take_header(bytes, piece);
    if (at != state::payload)
        return piece;
    piece.payload = payload_left ? bytes.first(std::min(*payload_left, bytes.size())) : bytes;
    if (payload_left) {
        *payload_left -= piece.payload.size();
        piece.ends = *payload_left == 0;
        if (piece.ends)
            at = state::outside;
    }
    return piece;
}

// Takes the header's bytes off the front.
void pes_pieces::take_header(std::span<const uint8_t>& bytes, pes_piece& piece)
{
    const auto gather_up_to = [this, &bytes](size_t size) {
        const size_t more = std::min(size - std::min(size, header.size()), bytes.size());
        header.insert(header.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(more));
        bytes = bytes.subspan(more);
        return header.size() >= size;
    };
    if (!gather_up_to(fixed_header_bytes))
        return;
    const size_t header_bytes = fixed_header_bytes + header[8];
    const size_t packet_length = load_be16(header.data() + 4);
    const bool length_is_sound =
        packet_length == 0 || packet_length + bytes_before_length_counts >= header_bytes;
    if (!begins_like_pes(header) || !length_is_sound) {
        at = state::outside;
        return;
    }
    if (!gather_up_to(header_bytes))
        return;

    const bool has_pts = (header[7] & 0x80) != 0 && header[8] >= time_stamp_bytes;
    const bool has_dts = (header[7] & 0xC0) == 0xC0 && header[8] >= 2 * time_stamp_bytes;
    piece.begins = true;
    if (has_pts)
        piece.pts = load_time_stamp(header.data() + fixed_header_bytes);
    if (has_dts)
        piece.dts = load_time_stamp(header.data() + fixed_header_bytes + time_stamp_bytes);
    payload_left.reset();
    if (packet_length != 0)
        payload_left = packet_length + bytes_before_length_counts - header_bytes;
    at = state::payload;
}
