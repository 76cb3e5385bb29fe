#include "v2/hls/hls_bundle.hpp"

#include "v2/playlist/rendition_groups.hpp"

std::map<std::string, HLSoutput> vtt_outputs;

namespace
{

constexpr uint64_t unlisted_fragments_kept = 3; // grace for clients with an older playlist
constexpr uint64_t fragments_held_back = 0;

// Names for what must never be written.
constexpr const char* unused_playlist = "__DO_NOT_USE__.m3u8";
constexpr const char* unused_base = "__DO_NOT_USE__";

void apply_options(HLSoutput& output, const cmdopts& opts)
{
    output.base_url = opts.base_url;
    output.base_name = opts.frag_name;
    output.no_padding = opts.no_padding;
    output.start_pat_pmt = opts.start_pat_pmt;
    output.pat_nit_not_first = opts.pat_nit_not_first;
    output.m3u8.list_size = static_cast<uint64_t>(opts.frag_backlog);
    output.m3u8.nolist_count = unlisted_fragments_kept;
    output.m3u8.holdback_max = fragments_held_back;
    output.m3u8.target_duration = static_cast<uint64_t>(opts.frag_duration);
}

// The suffix follows the whole playlist name, whose own extension stays: ch1.m3u8.v.m3u8.
void name_separate_rendition(HLSoutput& output, const cmdopts& opts, const char* suffix)
{
    output.m3u8.file_name = opts.m3u8_name + suffix + ".m3u8";
    output.base_name = opts.frag_name + suffix;
}

// Outputs left without a playlist name here exist all the same, are retired at every cut, and get
// entries without names.
void name_renditions(HLSbundle& bundle, const cmdopts& opts)
{
    if (opts.no_multilevel) {
        bundle.main_out.m3u8.file_name = opts.m3u8_name;
    } else if (opts.separate_streams) {
        name_separate_rendition(bundle.main_out, opts, ".v");
        name_separate_rendition(bundle.audio_out, opts, ".a");
        name_separate_rendition(bundle.sap_out, opts, ".sap");
    } else {
        bundle.main_out.m3u8.file_name = opts.m3u8_name + ".av.m3u8";
    }
    bundle.audio_out.audio_only = bundle.audio_out.m3u8.audio_only = opts.separate_streams;
    bundle.sap_out.is_sap = bundle.sap_out.m3u8.is_sap = opts.separate_streams;
}

void configure_master(HLSbundle& bundle, const cmdopts& opts)
{
    HLSoutput& master = bundle.master_out;
    master.base_name = unused_base;
    master.base_url = opts.base_url;
    master.m3u8.master = true;
    if (opts.no_multilevel) {
        master.m3u8.file_name = unused_playlist;
        return;
    }

    master.m3u8.file_name = opts.m3u8_name;
    master.master = true;
    master.master_dirty = true;
    master.m3u8.variant_uri = bundle.main_out.m3u8.file_name;
    master.m3u8.audio_playlist = bundle.audio_out.m3u8.file_name;
    if (opts.sap)
        master.m3u8.sap_playlist = bundle.sap_out.m3u8.file_name;
    captions_group = "caps";
}

} // namespace

void configure_bundle(HLSbundle& bundle, const cmdopts& opts)
{
    audio_group = "aud";
    for (HLSoutput* output : {&bundle.main_out, &bundle.audio_out, &bundle.sap_out})
        apply_options(*output, opts);
    name_renditions(bundle, opts);
    configure_master(bundle, opts);
}

HLSoutput& create_vtt_output(HLSbundle& bundle, const std::string& key)
{
    const HLSoutput& main_out = bundle.main_out;
    HLSoutput& output = vtt_outputs[key];
    output.carries_ts = false;
    output.base_name = main_out.base_name;
    output.base_url = main_out.base_url;
    output.suffix = "." + key + ".vtt";
    output.next_seq = main_out.opened_seq; // its first fragment stands beside the open one
    output.m3u8.file_name = main_out.m3u8.file_name + "." + key + ".vtt.m3u8";
    output.m3u8.list_size = main_out.m3u8.list_size;
    output.m3u8.nolist_count = main_out.m3u8.nolist_count;
    output.m3u8.holdback_max = main_out.m3u8.holdback_max;
    output.m3u8.target_duration = main_out.m3u8.target_duration;
    bundle.master_out.master_dirty = true;
    return output;
}

void rewrite_master_if_dirty(HLSbundle& bundle)
{
    HLSoutput& master = bundle.master_out;
    if (!master.master || !master.master_dirty)
        return;

    master.master_dirty = false;
    master.m3u8.subtitles.clear();
    for (const auto& [code, output] : vtt_outputs)
        master.m3u8.subtitles.push_back(
            {.code = code, .base_url = output.base_url, .playlist_name = output.m3u8.file_name});
    master.rewrite_playlist();
}
