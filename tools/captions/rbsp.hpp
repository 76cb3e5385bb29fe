// The payload of NAL units of H.264.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

// What stands behind the unit's header byte, without emulation prevention bytes (ITU-T H.264,
// 7.3.1).
std::vector<uint8_t> rbsp_of(std::span<const uint8_t> nal_unit);
