// The layout of packets on the control socket: what the sender writes and the client reads, stated
// once. All integers are big-endian. docs/control-socket.md explains it to peers in any language.
#pragma once

#include <cstddef>
#include <cstdint>

// Packet header
//   bytes 0-3   magic            "VORN"
//   byte 4      version          1
//   byte 5      status           bit 0 complete, bit 1 for use; the others 0
//   byte 6      command_length   bytes of the command
//   byte 7      pair_count       number of pairs
//   bytes 8-11  body_length      bytes that follow the header: the command and the pairs
constexpr size_t comm_magic_at = 0;
constexpr size_t comm_version_at = 4;
constexpr size_t comm_status_at = 5;
constexpr size_t comm_command_length_at = 6;
constexpr size_t comm_pair_count_at = 7;
constexpr size_t comm_body_length_at = 8;
constexpr size_t comm_header_bytes = 12;

// Body: the command, then each pair as
//   byte 0      type             a comm_type
//   byte 1      name_length      bytes of the name
//   bytes 2-3   reserved         0
//   bytes 4-7   value_length     bytes of the value
//   then the name and the value
constexpr size_t comm_pair_type_at = 0;
constexpr size_t comm_pair_name_length_at = 1;
constexpr size_t comm_pair_reserved_at = 2;
constexpr size_t comm_pair_value_length_at = 4;
constexpr size_t comm_pair_header_bytes = 8;

constexpr uint32_t comm_magic = 0x564F524E; // "VORN"
constexpr uint8_t comm_version = 1;

// A receiver acts only on a packet that has both bits.
constexpr uint8_t comm_status_complete = 0x01; // the sender put everything in that it meant to
constexpr uint8_t comm_status_for_use = 0x02;  // the receiver is meant to act on it
constexpr uint8_t comm_status_usable = comm_status_complete | comm_status_for_use;

// Types of values. The gaps are free; a value of an unknown type is carried all the same.
constexpr int comm_type_text = 0;   // bytes, UTF-8 by custom, without a terminating NUL
constexpr int comm_type_uint64 = 2; // comm_integer_bytes, big-endian
constexpr int comm_type_int64 = 5;  // comm_integer_bytes, big-endian, two's complement
constexpr size_t comm_integer_bytes = 8;

// Limits. More than these is malformed.
constexpr size_t comm_packet_bytes_max = 65536; // the header included
constexpr size_t comm_body_bytes_max = comm_packet_bytes_max - comm_header_bytes;
constexpr size_t comm_pairs_max = 64;
constexpr size_t comm_command_bytes_max = 255; // the length is one byte
constexpr size_t comm_name_bytes_max = 255;    // the length is one byte
