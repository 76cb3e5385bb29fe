#include "tests/support/stream_builder.hpp"

#include "toolkit/big_endian.hpp"

namespace
{

uint8_t stream_type_of(video_codec codec)
{
    return codec == video_codec::h264 ? 0x1B : 0x02;
}

uint8_t stream_type_of(audio_codec codec)
{
    return codec == audio_codec::aac ? 0x0F : 0x03;
}

pmt_fields pmt_of(const programme_fields& programme)
{
    pmt_fields pmt{.section = {.table_id = 2, .table_id_extension = programme.number}};
    const auto add = [&pmt](auto codec, uint16_t pid) {
        if (codec != decltype(codec)::none)
            pmt.streams.push_back({.stream_type = stream_type_of(codec), .pid = pid});
    };
    add(programme.video, programme.video_pid);
    add(programme.audio, programme.audio_pid);
    add(programme.sap, programme.sap_pid);
    if (!pmt.streams.empty())
        pmt.pcr_pid = pmt.streams.front().pid;
    return pmt;
}

byte_string keyframe_bytes(const programme_fields& programme, size_t filler_bytes)
{
    if (programme.video == video_codec::h264)
        return h264_keyframe(programme.picture_size, filler_bytes);
    return concat({build_sequence_header({}), build_group_header({}), build_picture_header({}),
                   build_slice(1, filler_bytes)});
}

byte_string picture_bytes(const programme_fields& programme, size_t filler_bytes)
{
    if (programme.video == video_codec::h264)
        return h264_p_picture(filler_bytes);
    return concat(
        {build_picture_header({.picture_coding_type = p_picture}), build_slice(1, filler_bytes)});
}

} // namespace

stream_builder::stream_builder(const programme_fields& programme)
    : pat{.programmes = {{.number = programme.number, .pid = programme.pmt_pid}}},
      pmt(pmt_of(programme)), programme_(programme)
{
}

stream_builder& stream_builder::tables(size_t times)
{
    for (size_t i = 0; i < times; i++) {
        raw(packets_.section(0, section_unit(build_pat(pat))));
        raw(packets_.section(programme_.pmt_pid, section_unit(build_pmt(pmt))));
    }
    return *this;
}

stream_builder& stream_builder::start_up()
{
    return tables(3).null_until(start_up_fill_bytes);
}

stream_builder& stream_builder::keyframe(int64_t pts, size_t filler_bytes)
{
    return pes(programme_.video_pid,
               {.pts = pts, .payload = keyframe_bytes(programme_, filler_bytes)});
}

stream_builder& stream_builder::picture(int64_t pts, size_t filler_bytes)
{
    return pes(programme_.video_pid,
               {.pts = pts, .payload = picture_bytes(programme_, filler_bytes)});
}

stream_builder& stream_builder::audio(int64_t pts, size_t payload_bytes)
{
    return pes(programme_.audio_pid, {.stream_id = 0xC0,
                                      .length = pes_length::true_length,
                                      .pts = pts,
                                      .payload = byte_string(payload_bytes, 0x5A)});
}

stream_builder& stream_builder::aac_frame(int64_t pts, size_t bytes)
{
    const auto length = static_cast<uint16_t>(bytes << 5 | 0x1F); // aac_frame_length, and more ones
    byte_string frame = {0xFF, 0xF1, 0x4C, 0x80, 0, 0, 0xFC};     // AAC LC, 48 kHz, stereo
    store_be16(frame.data() + 4, length);
    frame.resize(bytes, 0x5A);
    return pes(
        programme_.audio_pid,
        {.stream_id = 0xC0, .length = pes_length::true_length, .pts = pts, .payload = frame});
}

stream_builder& stream_builder::sap(int64_t pts, size_t payload_bytes)
{
    return pes(programme_.sap_pid, {.stream_id = 0xC1,
                                    .length = pes_length::true_length,
                                    .pts = pts,
                                    .payload = byte_string(payload_bytes, 0x69)});
}

stream_builder& stream_builder::pes(uint16_t pid, const pes_fields& fields)
{
    return raw(packets_.pes(pid, build_pes(fields)));
}

stream_builder& stream_builder::packet(const ts_fields& fields)
{
    return raw(packets_.packet(fields));
}

stream_builder& stream_builder::null(size_t count)
{
    return raw(null_packets(count));
}

stream_builder& stream_builder::null_until(size_t bytes)
{
    if (bytes_.size() < bytes)
        null((bytes - bytes_.size() + packet_bytes - 1) / packet_bytes);
    return *this;
}

stream_builder& stream_builder::raw(std::span<const uint8_t> more)
{
    append(bytes_, more);
    return *this;
}

byte_string stream_builder::between(size_t begin, size_t end) const
{
    const auto first = bytes_.begin();
    return {first + static_cast<std::ptrdiff_t>(begin), first + static_cast<std::ptrdiff_t>(end)};
}
