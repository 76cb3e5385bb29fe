#include "toolkit/comm/comm_packet_builder.hpp"

#include <array>
#include <bit>

#include "toolkit/big_endian.hpp"

namespace
{

bool has_nul(std::string_view text)
{
    return text.find('\0') != std::string_view::npos;
}

std::span<const uint8_t> bytes_of(std::string_view text)
{
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

void append(std::vector<uint8_t>& wire, std::span<const uint8_t> bytes)
{
    wire.insert(wire.end(), bytes.begin(), bytes.end());
}

[[nodiscard]] bool add_pair(std::vector<uint8_t>& wire, int type, std::string_view name,
                            std::span<const uint8_t> value)
{
    if (wire.empty() || wire[comm_pair_count_at] == comm_pairs_max)
        return false;
    if (name.empty() || name.size() > comm_name_bytes_max || has_nul(name))
        return false;
    const size_t room = comm_packet_bytes_max - wire.size();
    const size_t overhead = comm_pair_header_bytes + name.size();
    if (room < overhead || room - overhead < value.size())
        return false;

    std::array<uint8_t, comm_pair_header_bytes> header = {};
    header[comm_pair_type_at] = static_cast<uint8_t>(type);
    header[comm_pair_name_length_at] = static_cast<uint8_t>(name.size());
    store_be32(header.data() + comm_pair_value_length_at, static_cast<uint32_t>(value.size()));
    append(wire, header);
    append(wire, bytes_of(name));
    append(wire, value);

    ++wire[comm_pair_count_at];
    store_be32(wire.data() + comm_body_length_at,
               static_cast<uint32_t>(wire.size() - comm_header_bytes));
    return true;
}

[[nodiscard]] bool add_integer(std::vector<uint8_t>& wire, int type, std::string_view name,
                               uint64_t bits)
{
    std::array<uint8_t, comm_integer_bytes> value = {};
    store_be64(value.data(), bits);
    return add_pair(wire, type, name, value);
}

} // namespace

bool comm_packet_builder::begin(std::string_view command, uint8_t status)
{
    wire.clear();
    if (command.size() > comm_command_bytes_max || has_nul(command))
        return false;

    wire.resize(comm_header_bytes);
    store_be32(wire.data() + comm_magic_at, comm_magic);
    wire[comm_version_at] = comm_version;
    wire[comm_status_at] = status;
    wire[comm_command_length_at] = static_cast<uint8_t>(command.size());
    store_be32(wire.data() + comm_body_length_at, static_cast<uint32_t>(command.size()));
    append(wire, bytes_of(command));
    return true;
}

bool comm_packet_builder::add_text(std::string_view name, std::string_view text)
{
    return !has_nul(text) && add_pair(wire, comm_type_text, name, bytes_of(text));
}

bool comm_packet_builder::add_uint64(std::string_view name, uint64_t value)
{
    return add_integer(wire, comm_type_uint64, name, value);
}

bool comm_packet_builder::add_int64(std::string_view name, int64_t value)
{
    return add_integer(wire, comm_type_int64, name, std::bit_cast<uint64_t>(value));
}
