// The road to the caption decoders: the pictures of a video stream, descriptors, and whole streams
// with the decoders behind them. No fuzzer finds the checksums of the tables on the way there, so
// they are put right.

#include <algorithm>
#include <vector>

#include "fuzz/caption_checks.hpp"
#include "fuzz/fuzz_input.hpp"
#include "toolkit/big_endian.hpp"
#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/psi_section.hpp"
#include "toolkit/ts/ts_packet.hpp"
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

// Of a table that lies in one packet.
void mend_checksum(const mpeg_ts_packet& packet)
{
    constexpr size_t bytes_before_length_counts = 3;
    if (!packet.payload_unit_start || packet.payload == nullptr)
        return;
    std::span<uint8_t> section(packet.raw, ts_packet_bytes);
    section = section.subspan(static_cast<size_t>(packet.payload - packet.raw));
    if (section.empty() || size_t{1} + section[0] + bytes_before_length_counts > section.size())
        return;
    section = section.subspan(size_t{1} + section[0]); // pointer_field
    const size_t size = bytes_before_length_counts + (load_be16(&section[1]) & 0x0FFF);
    if ((section[0] == pat_table_id || section[0] == pmt_table_id) && size <= section.size() &&
        size >= bytes_before_length_counts + crc32_bytes) {
        uint8_t* const checksum = &section[size - crc32_bytes];
        write_ts_checksum(checksum, section.data(), checksum);
    }
}

void mend_packets(std::span<uint8_t> stream)
{
    for (; stream.size() >= ts_packet_bytes; stream = stream.subspan(ts_packet_bytes)) {
        stream[0] = ts_sync_byte;
        mpeg_ts_packet packet;
        if (mpeg_ts_decode(packet, stream.data(), ts_packet_bytes) != 0)
            mend_checksum(packet);
    }
}

void read_stream(fuzz_input& input, bool mends)
{
    broadcast_captions captions;
    captions.all_services = true;
    captions.tracks = {{.service = {caption_kind::cea608, 1, "eng"}},
                       {.service = {caption_kind::cea708, 1, "spa"}},
                       {.service = {caption_kind::teletext, 0x888, "deu"}}};
    std::vector<uint8_t> bytes(input.rest().begin(), input.rest().end());
    if (mends)
        mend_packets(bytes);
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
    case 3:
        read_stream(input, false);
        break;
    default:
        read_stream(input, true);
    }
    return 0;
}
