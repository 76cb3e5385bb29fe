// The road to the caption decoders: the pictures of a video stream, descriptors, and whole streams
// with the decoders behind them. The decoders have targets of their own, since no fuzzer finds the
// checksums of the tables on the way to them.

#include <algorithm>
#include <vector>

#include "fuzz/caption_checks.hpp"
#include "fuzz/fuzz_input.hpp"
#include "tools/captions/broadcast_captions.hpp"

namespace
{

void read_video(fuzz_input& input, video_coding coding)
{
    video_captions video;
    video.start(coding);
    for (int64_t time = 0; !input.empty(); time += step(input)) {
        video.begin_packet(time + input.number<uint16_t>(), time);
        for (int pieces = input.number<uint8_t>() & 3; pieces >= 0; --pieces)
            video.add_payload(input.take(input.number<uint8_t>()));
        video.end_packet();
    }
    video.pictures.finish();
    require(std::ranges::is_sorted(video.pictures.waiting, {}, &captioned_picture::presentation));
}

void read_descriptors(fuzz_input& input)
{
    std::vector<caption_service> services;
    append_announced_services(input.rest(), services);
    for (const caption_service& service : services) {
        caption_service again{.language = service.language};
        require(service.language.size() == 3);
        require(parse_caption_service(name_of(service), again) && again == service);
    }
}

void read_stream(fuzz_input& input)
{
    broadcast_captions captions;
    captions.all_services = true;
    captions.tracks = {{.service = {caption_kind::cea608, 1, "eng"}},
                       {.service = {caption_kind::cea708, 1, "spa"}},
                       {.service = {caption_kind::teletext, 0x888, "deu"}}};
    std::vector<uint8_t> bytes(input.rest().begin(), input.rest().end());
    captions.feed(bytes);
    captions.finish();
    for (const caption_track& track : captions.tracks)
        check_cues(track.cues);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    switch (input.number<uint8_t>()) {
    case 0:
        read_video(input, video_coding::h264);
        break;
    case 1:
        read_video(input, video_coding::mpeg);
        break;
    case 2:
        read_descriptors(input);
        break;
    default:
        read_stream(input);
    }
    return 0;
}
