// The PAT and PMT packets that fragments begin with: kept as they pass, stamped with the run's
// continuity counters when a fragment opens. A table longer than one packet is kept only by its
// last packet.
#pragma once

#include "toolkit/ts/ts_packet.hpp"
#include "v2/demux/pid_map.hpp"

struct HLSoutput;

// Copies the packet's 188 bytes.
void keep_packet(kept_packet& kept, const mpeg_ts_packet& pkt);

// Writes the PAT and the output's own PMT into the fragment that it has just opened, as far as they
// are kept. Does nothing for an output that takes no tables. False if a write fails: that has
// closed the fragment, so nothing more is written.
[[nodiscard]] bool write_fragment_tables(HLSoutput& output, PIDmap& pm);
