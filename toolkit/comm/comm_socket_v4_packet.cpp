#include "toolkit/comm/comm_socket_v4_packet.hpp"

#include <algorithm>
#include <bit>
#include <string_view>
#include <utility>

#include "toolkit/big_endian.hpp"
#include "toolkit/comm/comm_wire.hpp"

namespace
{

using bytes_view = std::span<const uint8_t>;

// The text in `bytes`, which ends at its first NUL if it holds one, as C text does.
std::string text_of(bytes_view bytes)
{
    return std::string(bytes.begin(), std::ranges::find(bytes, uint8_t{0}));
}

std::string hex_of(bytes_view bytes)
{
    constexpr size_t bytes_shown = 32;
    constexpr std::string_view digits = "0123456789abcdef";

    if (bytes.empty())
        return {};
    std::string hex = "0x";
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), bytes_shown))) {
        hex += digits[byte >> 4];
        hex += digits[byte & 0x0F];
    }
    if (bytes.size() > bytes_shown)
        hex += "...";
    return hex;
}

void set_value(comm_socket_v4_packet_nv_pair& pair, bytes_view value)
{
    pair.value_length = value.size();
    if (value.size() >= comm_integer_bytes) {
        pair.as_unsigned = load_be64(value.data());
        pair.as_signed = std::bit_cast<int64_t>(pair.as_unsigned);
    }

    if (pair.type_code == comm_type_text)
        pair.text = text_of(value);
    else if (pair.type_code == comm_type_uint64 && value.size() >= comm_integer_bytes)
        pair.text = std::to_string(pair.as_unsigned);
    else if (pair.type_code == comm_type_int64 && value.size() >= comm_integer_bytes)
        pair.text = std::to_string(pair.as_signed);
    else
        pair.text = hex_of(value);
}

// Takes `n` bytes off the front of `rest`; false when there are fewer.
[[nodiscard]] bool take(bytes_view& rest, size_t n, bytes_view& taken)
{
    if (rest.size() < n)
        return false;
    taken = rest.first(n);
    rest = rest.subspan(n);
    return true;
}

[[nodiscard]] bool take_pair(bytes_view& rest, comm_socket_v4_packet_nv_pair& pair)
{
    bytes_view header;
    bytes_view name;
    bytes_view value;
    if (!take(rest, comm_pair_header_bytes, header))
        return false;
    if (load_be16(header.data() + comm_pair_reserved_at) != 0)
        return false;
    if (!take(rest, header[comm_pair_name_length_at], name))
        return false;
    if (!take(rest, load_be32(header.data() + comm_pair_value_length_at), value))
        return false;

    pair.type_code = header[comm_pair_type_at];
    pair.name = text_of(name);
    set_value(pair, value);
    return true;
}

// The body must be used up exactly: bytes left over mean that the two ends disagree on the layout.
[[nodiscard]] bool decode_body(bytes_view header, bytes_view body, comm_socket_v4_packet& packet)
{
    bytes_view command;
    if (!take(body, header[comm_command_length_at], command))
        return false;

    packet.status_bits = header[comm_status_at];
    packet.command_word = text_of(command);
    packet.pairs.resize(header[comm_pair_count_at]);
    for (comm_socket_v4_packet_nv_pair& pair : packet.pairs)
        if (!take_pair(body, pair))
            return false;
    return body.empty();
}

[[nodiscard]] bool header_is_sound(bytes_view header)
{
    return load_be32(header.data() + comm_magic_at) == comm_magic &&
           header[comm_version_at] == comm_version &&
           header[comm_pair_count_at] <= comm_pairs_max &&
           load_be32(header.data() + comm_body_length_at) <= comm_body_bytes_max;
}

} // namespace

const comm_socket_v4_packet_nv_pair* comm_socket_v4_packet::nv_entry(unsigned long index) const
{
    return index < pairs.size() ? &pairs[index] : nullptr;
}

void comm_socket_v4_packet_release(comm_socket_v4_packet* packet)
{
    delete packet;
}

const char* comm_socket_v4_packet_get_nv_pair_name(const comm_socket_v4_packet* /*packet*/,
                                                   const comm_socket_v4_packet_nv_pair* pair)
{
    if (pair == nullptr || pair->name.empty())
        return nullptr;
    return pair->name.c_str();
}

const char* comm_socket_v4_packet_get_nv_pair_value_text(const comm_socket_v4_packet* /*packet*/,
                                                         const comm_socket_v4_packet_nv_pair* pair)
{
    return pair == nullptr ? "" : pair->text.c_str();
}

const int64_t*
comm_socket_v4_packet_get_nv_pair_value_int64(const comm_socket_v4_packet* /*packet*/,
                                              const comm_socket_v4_packet_nv_pair* pair)
{
    if (pair == nullptr || pair->type() != comm_type_int64 || pair->length() < comm_integer_bytes)
        return nullptr;
    return &pair->as_signed;
}

const uint64_t*
comm_socket_v4_packet_get_nv_pair_value_uint64(const comm_socket_v4_packet* /*packet*/,
                                               const comm_socket_v4_packet_nv_pair* pair)
{
    if (pair == nullptr || pair->type() != comm_type_uint64 || pair->length() < comm_integer_bytes)
        return nullptr;
    return &pair->as_unsigned;
}

comm_decode_result comm_packet_decode(std::span<const uint8_t> bytes,
                                      comm_socket_v4_packet_ptr& packet, size_t& used)
{
    bytes_view header;
    bytes_view body;
    if (!take(bytes, comm_header_bytes, header))
        return comm_decode_result::need_more;
    if (!header_is_sound(header))
        return comm_decode_result::malformed;
    if (!take(bytes, load_be32(header.data() + comm_body_length_at), body))
        return comm_decode_result::need_more;

    comm_socket_v4_packet_ptr decoded(new comm_socket_v4_packet);
    if (!decode_body(header, body, *decoded))
        return comm_decode_result::malformed;

    packet = std::move(decoded);
    used = header.size() + body.size();
    return comm_decode_result::packet;
}
