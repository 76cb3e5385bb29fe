// All renditions of a run. They are cut at the same instants, so fragment n of each covers the same
// stretch of programme time.
#pragma once

#include <map>
#include <string>

#include "v2/base/cmdopts.hpp"
#include "v2/hls/hls_output.hpp"

struct HLSbundle {
    HLSoutput master_out; // the multilevel master playlist; never opens a fragment
    HLSoutput main_out;   // the whole programme, or its video with separate streams; its fragment
                          // sizes and numbers lead the others
    HLSoutput audio_out;  // receives packets only with separate streams
    HLSoutput sap_out;    // secondary audio; likewise, and only with --sap
};

// The WebVTT renditions by language key. Process-wide, like the queues of cues that feed them; each
// is made when its language first has something to write, and kept to the end of the process.
extern std::map<std::string, HLSoutput> vtt_outputs;

// Names the renditions and gives them their settings from the options, and sets the audio and
// closed-caption group names. With a multilevel presentation a first master playlist is due.
void configure_bundle(HLSbundle& bundle, const cmdopts& opts);

// Creates the WebVTT rendition of a language, in step with the main rendition, and makes the master
// playlist due, which lists it. Returns it; the key must not have one yet.
HLSoutput& create_vtt_output(HLSbundle& bundle, const std::string& key);

// Rewrites the master playlist if it is due.
void rewrite_master_if_dirty(HLSbundle& bundle);
