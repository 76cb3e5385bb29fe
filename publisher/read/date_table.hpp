// The time of day that a stream carries: the TDT and the TOT, ETSI EN 300 468, 5.2.5 and 5.2.6.
#pragma once

#include <cstdint>
#include <optional>

#include "toolkit/ts/ts_packet.hpp"

constexpr uint16_t date_table_pid = 0x0014;

// Milliseconds since 1970 in UTC, of a table that begins in this packet.
std::optional<int64_t> read_date_table(const mpeg_ts_packet& pkt);
