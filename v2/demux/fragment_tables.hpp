// The PAT and PMT packets kept for the start of fragments: keeping them as they pass, and stamping
// them with the run's continuity counters. A table longer than one packet is kept only by its last
// packet.
#pragma once

#include "toolkit/ts/ts_packet.hpp"
#include "v2/demux/pid_map.hpp"

enum class rendition { main, audio, secondary_audio };

// Copies the packet's 188 bytes.
void keep_packet(kept_packet& kept, const mpeg_ts_packet& pkt);

// The PAT for the next fragment, stamped with the run's counter; null if there is none.
const kept_packet* next_fragment_pat(PIDmap& pm);

// The PMT for the next fragment of a rendition, stamped likewise; null if there is none for it.
// There is no fallback to another rendition's.
const kept_packet* next_fragment_pmt(PIDmap& pm, rendition of);
