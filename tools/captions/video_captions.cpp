#include "tools/captions/video_captions.hpp"

#include <array>
#include <utility>

#include "toolkit/big_endian.hpp"
#include "toolkit/h264/h264_nal.hpp"
#include "toolkit/pes/mpeg_video_scanner.hpp"

namespace
{

// The last bytes of the start codes of MPEG video.
constexpr uint8_t picture_code = picture_start_code & 0xFF;
constexpr uint8_t sequence_code = sequence_header_code & 0xFF;
constexpr uint8_t user_data_code = 0xB2;

constexpr uint8_t first_slice_code = 0x01;
constexpr uint8_t last_slice_code = 0xAF;

// How many packets of one picture make it likely that all are, and how often that is looked at
// again.
constexpr int packets_to_learn = 16;
constexpr int packets_between_looks = 32;

bool is_h264_slice(uint8_t code)
{
    const int type = code & 0x1F;
    return type == tremsa::h264_nal_slice_non_idr || type == tremsa::h264_nal_slice_idr;
}

unit_part part_of_h264(uint8_t code, bool reads_whole)
{
    const bool forbidden_zero_bit = (code & 0x80) != 0;
    if (forbidden_zero_bit)
        return unit_part::none;
    if (is_h264_slice(code))
        return reads_whole ? unit_part::start : unit_part::end;
    switch (code & 0x1F) {
    case tremsa::h264_nal_sei:
    case tremsa::h264_nal_seq_parameter_set:
    case tremsa::h264_nal_pic_parameter_set:
    case tremsa::h264_nal_access_unit_delimiter:
        return unit_part::whole;
    default:
        return unit_part::none;
    }
}

unit_part part_of_mpeg(uint8_t code, bool reads_whole)
{
    if (code == picture_code || code == user_data_code || code == sequence_code)
        return unit_part::whole;
    const bool is_slice = code >= first_slice_code && code <= last_slice_code;
    return is_slice && !reads_whole ? unit_part::end : unit_part::none;
}

// frame_rate_code, ISO/IEC 13818-2, table 6-4, as ticks of 90 kHz; 0 for one that is none.
int64_t frame_ticks_of(uint8_t frame_rate_code)
{
    constexpr std::array<int64_t, 9> ticks = {0, 3754, 3750, 3600, 3003, 3000, 1800, 1502, 1500};
    return frame_rate_code < ticks.size() ? ticks[frame_rate_code] : 0;
}

// temporal_reference has 10 bits and counts on from 0 after 1023.
int reference_step(int from, int to)
{
    const int step = (to - from) & 0x3FF;
    return step < 0x200 ? step : step - 0x400;
}

} // namespace

void video_captions::start(video_coding new_coding)
{
    *this = {};
    coding = new_coding;
}

void video_captions::begin_packet(int64_t presentation, int64_t decoding)
{
    end_packet();
    in_packet = coding != video_coding::none;
    pictures_in_packet = 0;
    has_slices = false;
    h264_times.begin_packet({.presentation = presentation, .decoding = decoding});
    current = {.presentation = presentation, .decoding = decoding, .pairs = {}};
}

void video_captions::continue_packet()
{
    end_packet();
    in_packet = coding != video_coding::none;
    reads_whole = true;
    packets_of_one = 0;
}

void video_captions::add_payload(std::span<const uint8_t> bytes)
{
    if (!in_packet)
        return;
    const auto part = [this](uint8_t code) {
        return part_of(code);
    };
    const auto take = [this](std::span<const uint8_t> unit) {
        take_unit(unit);
    };
    if (!units.feed(bytes, part, take))
        end_packet();
}

unit_part video_captions::part_of(uint8_t code) const
{
    return coding == video_coding::h264 ? part_of_h264(code, reads_whole)
                                        : part_of_mpeg(code, reads_whole);
}

void video_captions::end_packet()
{
    if (!in_packet)
        return;
    units.finish([this](std::span<const uint8_t> unit) { take_unit(unit); });
    in_packet = false;
    begin_next_picture();
    choose_how_to_read();
}

void video_captions::choose_how_to_read()
{
    if (!reads_whole) {
        reads_whole = ++packets_cut == packets_between_looks;
        return;
    }
    packets_of_one = pictures_in_packet > 1 ? 0 : packets_of_one + 1;
    packets_cut = 0;
    reads_whole = packets_of_one < packets_to_learn;
}

void video_captions::take_unit(std::span<const uint8_t> unit)
{
    if (coding == video_coding::h264)
        take_h264_unit(unit);
    else if (unit[0] == user_data_code)
        append_a53_pairs(unit.subspan(1), current.pairs);
    else if (unit[0] == picture_code)
        take_picture_header(unit);
    else if (unit.size() > 4)
        frame_ticks = frame_ticks_of(unit[4] & 0x0F); // behind the sizes and the aspect ratio
}

// Any of the units before the slices begins the next picture (7.4.1.2.3).
void video_captions::take_h264_unit(std::span<const uint8_t> unit)
{
    if (is_h264_slice(unit[0])) {
        take_slice(unit);
        return;
    }
    if (std::exchange(has_slices, false))
        begin_next_picture();
    if ((unit[0] & 0x1F) == tremsa::h264_nal_sei)
        append_sei_pairs(unit, current.pairs);
    else if ((unit[0] & 0x1F) != tremsa::h264_nal_access_unit_delimiter)
        h264_times.take_parameter_set(unit);
}

// Its own times are known later, with its first slice or its header.
void video_captions::begin_next_picture()
{
    captioned_picture next{
        .presentation = current.presentation, .decoding = current.decoding, .pairs = {}};
    pictures.add(std::exchange(current, std::move(next)));
}

// A slice whose first_mb_in_slice is 0 begins a picture.
void video_captions::take_slice(std::span<const uint8_t> unit)
{
    const bool is_first = unit.size() > 1 && (unit[1] & 0x80) != 0;
    if (has_slices && !is_first)
        return;
    if (std::exchange(has_slices, true))
        begin_next_picture();
    const h264_picture_time time = h264_times.next(unit);
    current.presentation = time.presentation;
    current.decoding = time.decoding;
    ++pictures_in_packet;
}

void video_captions::take_picture_header(std::span<const uint8_t> unit)
{
    if (unit.size() < 3)
        return;
    const int reference = load_be16(unit.data() + 1) >> 6;
    if (pictures_in_packet++ == 0) {
        first_reference = reference;
        last_reference = reference;
        first_presentation = current.presentation;
        return;
    }
    if (reference == last_reference)
        return; // the other field
    last_reference = reference;
    captioned_picture next{.presentation = first_presentation +
                                           reference_step(first_reference, reference) * frame_ticks,
                           .decoding = current.decoding + frame_ticks,
                           .pairs = {}};
    pictures.add(std::exchange(current, std::move(next)));
}
