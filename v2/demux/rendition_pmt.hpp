// The one-stream PMT of a separate rendition, made from the programme's own.
#pragma once

#include "toolkit/ts/program_map.hpp"
#include "toolkit/ts/psi_section.hpp"
#include "toolkit/ts/ts_packet.hpp"
#include "v2/demux/pid_map.hpp"

// Builds into `target` a packet of pkt's PID whose PMT lists `stream` alone, as received, and names
// it as the PCR carrier. The received section is the one that pm's assembly of that PID holds, and
// `header` and `stream` are its own. Builds nothing if the programme's descriptors exceed 79 bytes.
// A table that does not fit one packet aborts the program rather than be truncated; a stream can do
// this on purpose.
void build_rendition_pmt(PIDmap& pm, mpeg_ts_packet& pkt, const mpeg_ts_pat_main_header* header,
                         const mpeg_ts_pat_map_entry& stream, kept_packet& target);
