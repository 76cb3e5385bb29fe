// The network_PID entry of a PAT, ISO/IEC 13818-1, 2.4.4.3. Some players take the first entry of a
// PAT for a programme, so a PAT that begins with the network's can be rewritten in place.
#pragma once

#include "toolkit/ts/ts_packet.hpp"

// Moves the network entry to the end of the programmes if the section in this packet begins with
// it. True if so; the CRC_32 must then be stored anew. A section that does not fit the packet stays
// as it is.
[[nodiscard]] bool move_nit_last(mpeg_ts_packet& pkt);

// Stores the CRC_32 of the section that starts in this packet, and is known to end in it.
void rewrite_pat_crc(mpeg_ts_packet& pkt);
