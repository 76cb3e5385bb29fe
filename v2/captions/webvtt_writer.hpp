// Writes waiting cues into the WebVTT fragment of their language.
#pragma once

struct HLSbundle;

// Drains every language's queue into its current fragment, as far as the cues' ends are known, and
// creates the renditions of new languages. Called for every video PES packet with a PTS, after the
// cut that it may bring. Times are 90 kHz ticks: of the packet, of the cut window's start and of
// its end with 3 s of slack, and of the start of the current fragment, which is the time origin of
// the WebVTT fragment. Does nothing without a multilevel presentation or an open main fragment.
void io_proc_emit_vtt(long long pts, long long window_start, long long window_end,
                      long long frag_start, HLSbundle& bundle);
