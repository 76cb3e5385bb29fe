#include "publisher/read/picture.hpp"

#include <array>
#include <cstdio>

#include "publisher/read/captions.hpp"
#include "toolkit/big_endian.hpp"
#include "toolkit/h264/h2645_common_bitreader.hpp"
#include "toolkit/h264/h2645_common_nal_reader.hpp"
#include "toolkit/h264/h264_nal.hpp"
#include "toolkit/h264/h264_nal_slice_header.hpp"
#include "toolkit/pes/mpeg_video_scanner.hpp"
#include "toolkit/start_code.hpp"

namespace
{

using nal_reader = tremsa::h2645_common_nal_reader<tremsa::h264_nal, tremsa::h2645_common_nalfmt>;

using unit_buffer = std::array<uint8_t, 8192>;

std::span<const uint8_t> rbsp_of(nal_reader& reader, unit_buffer& buffer)
{
    reader.rewind();
    return {buffer.data(), reader.block_decode(buffer.data(), buffer.size())};
}

// profile_idc, the constraint flags and level_idc as they stand in the first bytes of the set,
// RFC 6381, 3.3.
std::string avc_codec(std::span<const uint8_t> sps_rbsp)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "avc1.%02X%02X%02X", sps_rbsp[0], sps_rbsp[1],
                  sps_rbsp[2]);
    return text.data();
}

// Two ticks are a frame, ITU-T H.264, E.2.1.
double frame_rate_of(const tremsa::h264_nal_sps& sps)
{
    const tremsa::h264_vui& vui = sps.vui;
    if (!sps.vui_parameters_present_flag || !vui.timing_info_present_flag ||
        vui.num_units_in_tick == 0)
        return 0;
    const double rate = vui.time_scale / 2.0 / vui.num_units_in_tick;
    return rate >= 1 && rate <= 300 ? rate : 0;
}

void take_sps(nal_reader& reader, unit_buffer& buffer, h264_parameter_sets& sets,
              picture_facts& picture)
{
    const auto rbsp = rbsp_of(reader, buffer);
    if (rbsp.size() < 4)
        return;
    tremsa::h2645_common_bitreader bits(rbsp.data(), rbsp.data() + rbsp.size());
    tremsa::h264_nal_sps sps;
    sps.parse(bits);
    if (!sps.valid)
        return;
    picture.has_headers = true;
    picture.format = {
        .codec = avc_codec(rbsp),
        .width = sps.getPicWidth(),
        .height = sps.getPicHeight(),
        .frame_rate = frame_rate_of(sps),
    };
    picture.headers.append(rbsp.begin(), rbsp.end());
    sets.sps.last_id = sps.seq_parameter_set_id;
    sets.sps.sets[sps.seq_parameter_set_id] = std::move(sps);
}

void take_pps(nal_reader& reader, unit_buffer& buffer, h264_parameter_sets& sets)
{
    const auto rbsp = rbsp_of(reader, buffer);
    tremsa::h2645_common_bitreader bits(rbsp.data(), rbsp.data() + rbsp.size());
    tremsa::h264_nal_pps pps;
    pps.parse(bits, sets.sps);
    if (!pps.valid)
        return;
    sets.pps.last_id = pps.pic_parameter_set_id;
    sets.pps.sets[pps.pic_parameter_set_id] = std::move(pps);
}

bool is_intra(nal_reader& reader, unit_buffer& buffer, const h264_parameter_sets& sets)
{
    const auto rbsp = rbsp_of(reader, buffer);
    tremsa::h2645_common_bitreader bits(rbsp.data(), rbsp.data() + rbsp.size());
    tremsa::h264_nal_slice_header slice;
    slice.parse(bits, sets.sps, sets.pps, reader.nal_found);
    return slice.valid && (slice.getSliceType() == tremsa::h264_slice_i ||
                           slice.getSliceType() == tremsa::h264_slice_si);
}

// frame_rate_code, ISO/IEC 13818-2, table 6-4
constexpr std::array<double, 9> frame_rates = {
    0, 24000.0 / 1001, 24, 25, 30000.0 / 1001, 30, 50, 60000.0 / 1001, 60,
};

constexpr uint32_t user_data_start_code = 0x1B2;
constexpr uint32_t extension_start_code = 0x1B5;
constexpr uint8_t sequence_extension_id = 1;
constexpr uint8_t i_picture = 1;

// sequence_header(), ISO/IEC 13818-2, 6.2.2.1
//   bytes 0-3  start code
//   bytes 4-6  horizontal_size_value:12 vertical_size_value:12
//   byte 7     aspect_ratio_information:4 frame_rate_code:4
void take_sequence_header(std::span<const uint8_t> from, picture_facts& picture)
{
    constexpr size_t header_bytes = 12;
    if (from.size() < header_bytes)
        return;
    const uint8_t frame_rate_code = from[7] & 0x0F;
    picture.has_headers = true;
    picture.format = {
        .codec = "mp4v.6A", // MPEG-1, until the extension tells
        .width = (uint32_t{from[4]} << 4) | (from[5] >> 4),
        .height = ((from[5] & 0x0Fu) << 8) | from[6],
        .frame_rate = frame_rate_code < frame_rates.size() ? frame_rates[frame_rate_code] : 0,
    };
    picture.headers.append(from.begin(), from.begin() + header_bytes);
}

// sequence_extension(), 6.2.2.3
//   byte 4     extension_start_code_identifier:4 profile_and_level_indication[7..4]:4
//   byte 5     profile_and_level_indication[3..0]:4 progressive_sequence:1 chroma_format:2
//              horizontal_size_extension[1]:1
//   byte 6     horizontal_size_extension[0]:1 vertical_size_extension:2 ...
void take_sequence_extension(std::span<const uint8_t> from, picture_facts& picture)
{
    constexpr size_t extension_bytes = 10;
    if (!picture.has_headers || from.size() < extension_bytes ||
        (from[4] >> 4) != sequence_extension_id)
        return;
    const uint8_t profile = from[4] & 0x07; // 5 simple, 4 main, 3 SNR, 2 spatial, 1 high
    const bool known = profile >= 1 && profile <= 5;
    // Object types 0x60 to 0x64 of ISO/IEC 14496-1, table 5: simple to high; 0x65 is 4:2:2.
    picture.format.codec = known ? "mp4v.6" + std::to_string(5 - profile) : "mp4v.65";
    picture.format.width |= ((from[5] & 1u) << 13) | ((from[6] & 0x80u) << 5);
    picture.format.height |= ((from[6] >> 5) & 3u) << 12;
    picture.headers.append(from.begin(), from.begin() + extension_bytes);
}

} // namespace

// Ends at the first slice: nothing behind it is asked about.
picture_facts read_h264_picture(std::span<const uint8_t> bytes, h264_parameter_sets& sets,
                                caption_facts& captions)
{
    picture_facts picture;
    unit_buffer buffer;
    nal_reader reader;
    const uint8_t* p = bytes.data();
    const uint8_t* const end = p + bytes.size();
    for (reader.scan(p, end); reader.found; reader.scan(reader.next_scan_ptr, end)) {
        switch (reader.nal_found.nal_unit_type) {
        case tremsa::h264_nal_seq_parameter_set:
            take_sps(reader, buffer, sets, picture);
            break;
        case tremsa::h264_nal_pic_parameter_set:
            take_pps(reader, buffer, sets);
            break;
        case tremsa::h264_nal_sei:
            find_captions_in_sei(captions, rbsp_of(reader, buffer));
            break;
        case tremsa::h264_nal_slice_idr:
            picture.keyframe = true;
            picture.independent = true;
            return picture;
        case tremsa::h264_nal_slice_non_idr:
            picture.keyframe = picture.has_headers && is_intra(reader, buffer, sets);
            return picture;
        default:
            break;
        }
    }
    return picture;
}

picture_facts read_mpeg_picture(std::span<const uint8_t> bytes, caption_facts& captions)
{
    picture_facts picture;
    bool closed_group = false;
    const mpeg_video_ptr scanner{mpeg_video_create()};
    if (!scanner)
        return picture;

    const uint8_t* p = bytes.data();
    const uint8_t* const end = p + bytes.size();
    while (p < end) {
        p = mpeg_video_scan(scanner.get(), p, end);
        if (scanner->start_code == 0)
            break;
        const std::span<const uint8_t> from{scanner->code_ptr, end};
        switch (scanner->start_code) {
        case sequence_header_code:
            take_sequence_header(from, picture);
            break;
        case extension_start_code:
            take_sequence_extension(from, picture);
            break;
        case user_data_start_code:
            find_captions(captions, from.subspan(4));
            break;
        case group_start_code: // time_code:25 closed_gop:1 broken_link:1
            closed_group = from.size() >= 8 && (from[7] & 0x40) != 0;
            break;
        case picture_start_code: {
            mpeg_video_picture_header header;
            if (mpeg_video_decode_picture_header(scanner->code_ptr, end, &header) != 0) {
                picture.keyframe = picture.has_headers && header.picture_coding_type == i_picture;
                picture.independent = picture.keyframe && closed_group;
            }
            break; // user data of the picture may follow
        }
        default:
            if (scanner->start_code > picture_start_code &&
                scanner->start_code < user_data_start_code)
                return picture; // a slice
            break;
        }
        if (scanner->at_end)
            break;
    }
    return picture;
}
