// Which streams of a programme carry splice information, ANSI/SCTE 35.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr uint8_t stream_type_splice = 0x86;
constexpr uint8_t splice_table_id = 0xFC;
constexpr uint32_t cuei_identifier = 0x43554549; // "CUEI", of registration_descriptor and others

// The payload of the first descriptor with this tag that has so many bytes; empty: there is none.
std::span<const uint8_t> find_descriptor(uint8_t tag, size_t least,
                                         std::span<const uint8_t> descriptors);

// By its entry in the PMT.
bool carries_splices(uint8_t stream_type, std::span<const uint8_t> descriptors);
