// One packet received on the control socket: a command word and a list of named, typed values. Its
// owner holds it until comm_socket_v4_packet_release; every pointer obtained from it lives as long.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "toolkit/owner.hpp"

// A named value inside a packet. Callers use the methods and the functions below; the fields are
// filled by the decoder.
struct comm_socket_v4_packet_nv_pair {
    int type() const { return type_code; }
    unsigned long length() const { return value_length; } // bytes, as sent

    int type_code = 0;
    unsigned long value_length = 0;
    std::string name;
    std::string text;         // the value, printable where it is no text
    uint64_t as_unsigned = 0; // an integer value of 8 bytes or more: its first 8
    int64_t as_signed = 0;    // the same bits
};

struct comm_socket_v4_packet {
    uint8_t status() const { return status_bits; }
    const char* command() const { return command_word.c_str(); }
    unsigned long nv_entries() const { return pairs.size(); }
    const comm_socket_v4_packet_nv_pair* nv_entry(unsigned long index) const; // null past the end

    uint8_t status_bits = 0;
    std::string command_word;
    std::vector<comm_socket_v4_packet_nv_pair> pairs;
};

void comm_socket_v4_packet_release(comm_socket_v4_packet* packet);

using comm_socket_v4_packet_ptr =
    std::unique_ptr<comm_socket_v4_packet, destroy_with<comm_socket_v4_packet_release>>;

// The name; null when the pair has none.
const char* comm_socket_v4_packet_get_nv_pair_name(const comm_socket_v4_packet* packet,
                                                   const comm_socket_v4_packet_nv_pair* pair);

// The value as text, never null. A text as it was sent, up to its first NUL if it holds one; an
// integer of 8 bytes or more in decimal; any other value as "0x" and at most 32 bytes in
// hexadecimal, followed by "..." where there are more; "" for a value without bytes.
const char* comm_socket_v4_packet_get_nv_pair_value_text(const comm_socket_v4_packet* packet,
                                                         const comm_socket_v4_packet_nv_pair* pair);

// The value of an integer pair; null when the pair has another type or fewer than 8 bytes. Of a
// longer value the first 8 bytes count.
const int64_t*
comm_socket_v4_packet_get_nv_pair_value_int64(const comm_socket_v4_packet* packet,
                                              const comm_socket_v4_packet_nv_pair* pair);
const uint64_t*
comm_socket_v4_packet_get_nv_pair_value_uint64(const comm_socket_v4_packet* packet,
                                               const comm_socket_v4_packet_nv_pair* pair);

enum class comm_decode_result {
    packet,    // a whole packet stood at the front
    need_more, // what is there can still become a packet
    malformed, // nothing that follows can be trusted
};

// Decodes the packet at the front of `bytes`. On `packet`, `packet` owns it and `used` is the
// number of bytes it took; otherwise both are left alone.
[[nodiscard]] comm_decode_result
comm_packet_decode(std::span<const uint8_t> bytes, comm_socket_v4_packet_ptr& packet, size_t& used);
