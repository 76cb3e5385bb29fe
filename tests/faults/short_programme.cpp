#include "tests/faults/short_programme.hpp"

#include "tests/support/caption_packet.hpp"

namespace
{

constexpr int64_t first_pts = 900000;
constexpr int64_t cut_step = 450000; // 5 s, more than a fragment's 4

byte_string programme_stream(const programme_fields& programme, int cuts = 7)
{
    stream_builder stream(programme);
    stream.start_up();
    for (int64_t pts = first_pts; pts < first_pts + cuts * cut_step; pts += cut_step) {
        if (programme.video != video_codec::none)
            stream.keyframe(pts).picture(pts + cut_step / 2);
        stream.audio(pts);
        if (programme.sap != audio_codec::none)
            stream.sap(pts);
    }
    return stream.bytes();
}

} // namespace

short_programme captioned_programme(int cuts)
{
    return {
        .name = "captioned, cuts: " + std::to_string(cuts),
        .stream = programme_stream({}, cuts),
        .arguments = {"--start-pat-pmt", "--anon-sock", std::to_string(control_socket_number)},
        .captions = concat(
            {build_cue_event({.text = "one", .at_ms = first_pts / 90}),
             build_cue_event({.language = "spa", .text = "uno\n\ndos", .at_ms = first_pts / 90}),
             build_cue_event({.text = "two", .at_ms = first_pts / 90 + 2000})})};
}

short_programme separate_programme()
{
    return {.name = "separate",
            .stream = programme_stream({.sap = audio_codec::aac}),
            .arguments = {"--start-pat-pmt", "--separate-streams", "--sap"}};
}

short_programme audio_programme()
{
    return {.name = "audio",
            .stream = programme_stream({.video = video_codec::none}),
            .arguments = {"--start-pat-pmt"}};
}
