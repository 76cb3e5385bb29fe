#include "tests/faults/short_programme.hpp"

#include <stdexcept>

#include "toolkit/comm/comm_packet_builder.hpp"

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

byte_string caption(const std::string& language, int64_t pts, const std::string& text)
{
    comm_packet_builder cue;
    const bool built =
        cue.begin("vtt") && cue.add_uint64("service", 1) && cue.add_text("language", language) &&
        cue.add_int64("start", 0) && cue.add_int64("end", 1000) && cue.add_int64("now", 0) &&
        cue.add_uint64("mpeg timestamp", static_cast<uint64_t>(pts)) && cue.add_text("text", text);
    if (!built)
        throw std::logic_error("caption not built");
    return {cue.packet().begin(), cue.packet().end()};
}

} // namespace

short_programme captioned_programme(int cuts)
{
    return {.name = "captioned, cuts: " + std::to_string(cuts),
            .stream = programme_stream({}, cuts),
            .arguments = {"--start-pat-pmt", "--anon-sock", std::to_string(control_socket_number)},
            .captions =
                concat({caption("eng", first_pts, "one"), caption("spa", first_pts, "uno\n\ndos"),
                        caption("eng", first_pts + 180000, "two")})};
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
