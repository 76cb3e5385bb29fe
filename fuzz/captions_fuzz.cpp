// The captions in a broadcast: each decoder by itself, since no fuzzer finds the checksums of the
// tables on the way to them, and whole streams.

#include <algorithm>
#include <array>
#include <tuple>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "tools/captions/broadcast_captions.hpp"

namespace
{

// Whatever is shown has a beginning and an end, and can be sent.
void check_cues(const std::vector<broadcast_cue>& cues)
{
    for (const broadcast_cue& cue : cues) {
        require(cue.end > cue.start && cue.end - cue.start <= longest_cue_ticks);
        require(!cue.text.empty() && cue.text.size() < 60000);
        require(cue.text.find("-->") == std::string::npos);
        require(cue.settings.size() < 64);
    }
}

// Time steps from the input: mostly a frame, now and then as far as a decoder waits.
int64_t step(fuzz_input& input)
{
    const auto byte = input.number<uint8_t>();
    return byte < 0xF0 ? 3003 : (byte & 0x0F) * pts_ticks_per_second;
}

void decode_cea608(fuzz_input& input)
{
    cea608_field field;
    for (int64_t time = 0; !input.empty(); time += step(input)) {
        field.advance(time);
        field.take(time, input.number<uint8_t>(), input.number<uint8_t>());
    }
    field.forget();
    for (const cea608_channel& channel : field.channels)
        check_cues(channel.cues.cues);
}

void decode_cea708(fuzz_input& input)
{
    cea708_packets packets;
    cea708_service service;
    int64_t time = 0;
    for (; !input.empty(); time += step(input)) {
        service.advance(time);
        const auto type =
            (input.number<uint8_t>() & 7) == 0 ? cc_type::dtvcc_start : cc_type::dtvcc_data;
        packets.take(
            {.type = type, .first = input.number<uint8_t>(), .second = input.number<uint8_t>()},
            [&](int, std::span<const uint8_t> block) { service.take(time, block); });
    }
    service.forget();
    check_cues(service.cues.cues);
}

// A block at a time, without the packets around it.
void decode_cea708_blocks(fuzz_input& input)
{
    cea708_service service;
    for (int64_t time = 0; !input.empty(); time += step(input))
        service.take(time, input.take(input.number<uint8_t>() & 0x1F));
    service.forget();
    check_cues(service.cues.cues);
}

void decode_teletext(fuzz_input& input)
{
    teletext_stream stream;
    stream.want(0x888);
    stream.want(0x100);
    for (int64_t time = 0; !input.empty(); time += step(input)) {
        stream.advance(time);
        stream.take(time, input.take(input.number<uint16_t>() & 0x3FF));
    }
    stream.forget();
    for (const auto& [number, page] : stream.pages)
        check_cues(page.cues.cues);
}

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
    captions.tracks = {{.service = {caption_kind::cea608, 1, "eng"}, .cues = {}},
                       {.service = {caption_kind::cea708, 1, "spa"}, .cues = {}},
                       {.service = {caption_kind::teletext, 0x888, "deu"}, .cues = {}}};
    std::vector<uint8_t> bytes(input.rest().begin(), input.rest().end());
    captions.feed(bytes);
    captions.finish();
    for (const caption_track& track : captions.tracks)
        check_cues({track.cues.begin(), track.cues.end()});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    switch (input.number<uint8_t>()) {
    case 0:
        decode_cea608(input);
        break;
    case 1:
        decode_cea708(input);
        break;
    case 2:
        decode_cea708_blocks(input);
        break;
    case 3:
        decode_teletext(input);
        break;
    case 4:
        read_video(input, video_coding::h264);
        break;
    case 5:
        read_video(input, video_coding::mpeg);
        break;
    case 6:
        read_descriptors(input);
        break;
    default:
        read_stream(input);
    }
    return 0;
}
