// Null packets into a descriptor, at as little cost as there can be: a pipe is given the pages of
// one constant buffer, again and again, instead of copies.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "toolkit/ts/ts_packet.hpp"

constexpr size_t page_bytes = 4096;
constexpr size_t padding_buffer_packets = 1024; // a whole number of pages

struct padding_output {
    padding_output();

    alignas(page_bytes) std::array<uint8_t, padding_buffer_packets * ts_packet_bytes> packets;
    bool by_reference = true; // false once the descriptor has turned out to be no pipe
};

static_assert(padding_buffer_packets * ts_packet_bytes % page_bytes == 0);

enum class padding_result { sent, reader_behind, failed };

// The one of the process. It is never freed: what stands in the pipe are its pages, and the reader
// may come to them when the process has ended.
padding_output& process_padding();

// Sends so many null packets, or as many as go without a wait; `sent` is increased by them.
[[nodiscard]] padding_result send_padding(int fd, padding_output& padding, size_t count,
                                          size_t& sent);
