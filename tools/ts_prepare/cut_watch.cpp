#include "tools/ts_prepare/cut_watch.hpp"

#include <algorithm>

#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h264_nal.hpp"
#include "toolkit/h264/h264_nal_slice_header.hpp"
#include "toolkit/pes/mpeg_video_scanner.hpp"
#include "toolkit/start_code.hpp"
#include "tools/ts_prepare/program_choice.hpp"

namespace
{

constexpr size_t start_code_bytes = 4; // prefix, and the byte that says what begins
constexpr size_t pes_fixed_bytes = 9;  // up to PES_header_data_length

enum class picture_kind { undecided, keyframe, other };

// slice_header(), ITU-T H.264, 7.3.3: it begins with first_mb_in_slice and slice_type. Types 5 to 9
// stand for 0 to 4 in a picture whose slices are all alike, table 7-6.
picture_kind kind_of_slice(const uint8_t* header, const uint8_t* end)
{
    tremsa::h2645_common_bitreader bits(header, end);
    const uint32_t first_mb_in_slice = bits.ue();
    const uint32_t slice_type = bits.ue();
    if (bits.error() || first_mb_in_slice != 0)
        return picture_kind::undecided;
    const uint32_t type = slice_type % 5;
    return type == tremsa::h264_slice_i || type == tremsa::h264_slice_si ? picture_kind::keyframe
                                                                         : picture_kind::other;
}

picture_kind kind_of_h264_unit(const uint8_t* start_code, const uint8_t* end)
{
    switch (start_code[3] & 0x1F) {
    case tremsa::h264_nal_slice_idr:
        return picture_kind::keyframe;
    case tremsa::h264_nal_slice_non_idr:
        return kind_of_slice(start_code + start_code_bytes, end);
    default:
        return picture_kind::undecided;
    }
}

picture_kind kind_of_mpeg_video_unit(const uint8_t* start_code, const uint8_t* end)
{
    constexpr uint8_t i_picture = 1; // picture_coding_type, ISO/IEC 13818-2, table 6-12
    const uint32_t code = 0x100u | start_code[3];
    if (code == sequence_header_code || code == group_start_code)
        return picture_kind::keyframe;
    mpeg_video_picture_header picture;
    if (code != picture_start_code ||
        mpeg_video_decode_picture_header(start_code, end, &picture) == 0)
        return picture_kind::undecided;
    return picture.picture_coding_type == i_picture && picture.temporal_reference == 0
               ? picture_kind::keyframe
               : picture_kind::other;
}

picture_kind kind_of_picture(uint8_t stream_type, std::span<const uint8_t> bytes)
{
    const uint8_t* const end = bytes.data() + bytes.size();
    picture_kind kind = picture_kind::undecided;
    const uint8_t* p = find_start_code_prefix(bytes.data(), end);
    while (kind == picture_kind::undecided && end - p >= ptrdiff_t{start_code_bytes}) {
        kind = stream_type == stream_type_h264 ? kind_of_h264_unit(p, end)
                                               : kind_of_mpeg_video_unit(p, end);
        p = find_start_code_prefix(p + start_code_bytes - 1, end);
    }
    return kind;
}

std::span<const uint8_t> behind_pes_header(std::span<const uint8_t> payload)
{
    if (payload.size() < pes_fixed_bytes)
        return {};
    const size_t header = pes_fixed_bytes + payload[pes_fixed_bytes - 1];
    return payload.subspan(std::min(header, payload.size()));
}

} // namespace

void watch_streams(cut_watch& watch, std::span<const programme_stream> streams)
{
    const auto is_video = [](const programme_stream& s) {
        return is_video_taken(s.stream_type);
    };
    const auto is_audio = [](const programme_stream& s) {
        return is_audio_taken(s.stream_type);
    };
    auto chosen = std::ranges::find_if(streams, is_video);
    if (chosen == streams.end())
        chosen = std::ranges::find_if(streams, is_audio);
    watch = {};
    if (chosen != streams.end())
        watch = {.pid = chosen->pid, .stream_type = chosen->stream_type};
}

bool may_cut(cut_watch& watch, const mpeg_ts_packet& pkt)
{
    if (pkt.pid != watch.pid || watch.pid == 0 || pkt.payload == nullptr ||
        (!pkt.payload_unit_start && !watch.undecided))
        return false;
    if (!is_video_taken(watch.stream_type))
        return true;
    std::span<const uint8_t> bytes(pkt.payload, pkt.payload_end);
    const bool left_undecided = pkt.payload_unit_start && watch.undecided;
    if (pkt.payload_unit_start)
        bytes = behind_pes_header(bytes);
    const picture_kind kind = kind_of_picture(watch.stream_type, bytes);
    watch.undecided = kind == picture_kind::undecided;
    return left_undecided || kind == picture_kind::keyframe;
}
