// Chooses the programme and its streams: gathers the PAT and the chosen programme's PMT from their
// packets, locks onto one programme once a run, and picks the video, audio and secondary-audio PIDs
// anew with every PMT. Malformed and foreign sections are ignored without a message.
#pragma once

#include <cstdint>

#include "toolkit/ts/psi_section.hpp"
#include "toolkit/ts/ts_packet.hpp"
#include "v2/base/cmdopts.hpp"
#include "v2/demux/pid_map.hpp"

// Feeds a packet of the PID that `state` belongs to, and handles the section that it makes ready.
// `stop` is set when the PAT lock is taken or a PMT is handled. Always true.
[[nodiscard]] bool assemble_psi(PIDstate& state, PIDmap& pm, mpeg_ts_packet& pkt, bool& stop,
                                const cmdopts& opts);

// Takes the lock on the first programme of the PAT's programme loop [data, end).
void handle_pat(PIDmap& pm, bool& stop, const unsigned char* data, const unsigned char* end);

// Chooses the streams of a PMT from [data, end), which runs from PCR_PID to the CRC_32. With
// separate streams, builds each chosen stream's own PMT. Always true.
[[nodiscard]] bool io_proc_ts_packet_on_pmt(PIDstate& state, PIDmap& pm, mpeg_ts_packet& pkt,
                                            bool& stop, const mpeg_ts_pat_main_header* header,
                                            const unsigned char* data, const unsigned char* end,
                                            const cmdopts& opts);
