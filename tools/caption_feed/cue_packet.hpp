// A cue as the "vtt" packet that carries it over the control socket; docs/control-socket.md lists
// the pairs.
#pragma once

#include <cstdint>
#include <string_view>

#include "toolkit/comm/comm_packet_builder.hpp"
#include "tools/caption_feed/caption_cue.hpp"

// False when the cue is too large for a packet.
[[nodiscard]] bool build_cue_packet(const caption_cue& cue, uint64_t service,
                                    std::string_view language, comm_packet_builder& packet);
