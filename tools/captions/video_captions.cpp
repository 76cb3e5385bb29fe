#include "tools/captions/video_captions.hpp"

#include <algorithm>
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
constexpr uint8_t extension_code = 0xB5;
constexpr uint8_t group_code = group_start_code & 0xFF;

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

bool is_mpeg_slice(uint8_t code)
{
    return code >= first_slice_code && code <= last_slice_code;
}

// Whether an extension of MPEG-2 is that of a picture, and the picture is a field.
//   byte 1     extension_start_code_identifier:4, and f_codes up to
//   byte 3     f_code:4 intra_dc_precision:2 picture_structure:2
bool is_extension_of_a_field(std::span<const uint8_t> unit)
{
    constexpr int picture_coding_extension = 8;
    constexpr int frame_picture = 3;
    return unit.size() > 3 && unit[1] >> 4 == picture_coding_extension &&
           (unit[3] & 3) != frame_picture;
}

// frame_rate_code, ISO/IEC 13818-2, table 6-4, as ticks of 90 kHz; 0 for one that is none.
int64_t frame_ticks_of(uint8_t frame_rate_code)
{
    constexpr std::array<int64_t, 9> ticks = {0, 3754, 3750, 3600, 3003, 3000, 1800, 1502, 1500};
    return frame_rate_code < ticks.size() ? ticks[frame_rate_code] : 0;
}

// temporal_reference has 10 bits and counts on from 0 after 1023. In each group of pictures it
// begins with 0, in the order of display.
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
    begins_with_field = false;
    has_enough = false;
    pictures_in_packet = 0;
    has_slices = false;
    h264_times.begin_packet({.presentation = presentation, .decoding = decoding});
    current = {.presentation = presentation, .decoding = decoding, .pairs = {}};
}

void video_captions::continue_packet()
{
    end_packet();
    in_packet = coding != video_coding::none;
    has_enough = false;
    habits = {};
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
        has_enough = true;
    if (has_enough)
        end_packet();
}

// Behind the first slice.
bool video_captions::reads_on() const
{
    const packet_habit& habit = habits[begins_with_field ? 1 : 0];
    return habit.of_one < packets_to_learn || habit.cut == packets_between_looks;
}

unit_part video_captions::part_of(uint8_t code) const
{
    return coding == video_coding::h264 ? part_of_h264(code) : part_of_mpeg(code);
}

unit_part video_captions::part_of_h264(uint8_t code) const
{
    const bool forbidden_zero_bit = (code & 0x80) != 0;
    if (forbidden_zero_bit)
        return unit_part::none;
    if (is_h264_slice(code)) {
        const bool tells_field = pictures_in_packet == 0 && h264_times.may_have_fields;
        return tells_field || reads_on() ? unit_part::start : unit_part::end;
    }
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

unit_part video_captions::part_of_mpeg(uint8_t code) const
{
    if (is_mpeg_slice(code))
        return reads_on() ? unit_part::none : unit_part::end;
    switch (code) {
    case picture_code:
    case user_data_code:
    case sequence_code:
    case extension_code:
    case group_code:
        return unit_part::whole;
    default:
        return unit_part::none;
    }
}

void video_captions::end_packet()
{
    if (!in_packet)
        return;
    units.finish([this](std::span<const uint8_t> unit) { take_unit(unit); });
    in_packet = false;
    begin_next_picture();
    note_habit();
}

void video_captions::note_habit()
{
    packet_habit& habit = habits[begins_with_field ? 1 : 0];
    if (has_enough)
        ++habit.cut;
    else
        habit = {.of_one =
                     pictures_in_packet > 1 ? 0 : std::min(habit.of_one + 1, packets_to_learn),
                 .cut = 0};
}

void video_captions::take_unit(std::span<const uint8_t> unit)
{
    if (coding == video_coding::h264)
        take_h264_unit(unit);
    else
        take_mpeg_unit(unit);
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
    if (pictures_in_packet++ > 0)
        return;
    begins_with_field = time.is_field;
    has_enough = !reads_on();
}

void video_captions::take_mpeg_unit(std::span<const uint8_t> unit)
{
    switch (unit[0]) {
    case user_data_code:
        append_a53_pairs(unit.subspan(1), current.pairs);
        break;
    case picture_code:
        take_picture_header(unit);
        break;
    case extension_code:
        if (pictures_in_packet == 1)
            begins_with_field = begins_with_field || is_extension_of_a_field(unit);
        break;
    case group_code:
        begins_group = true;
        break;
    default:
        if (unit.size() > 4)
            frame_ticks = frame_ticks_of(unit[4] & 0x0F); // behind the sizes and the aspect ratio
    }
}

void video_captions::take_picture_header(std::span<const uint8_t> unit)
{
    if (unit.size() < 3)
        return;
    const int reference = load_be16(unit.data() + 1) >> 6;
    const int before = std::exchange(last_reference, reference);
    const bool is_first_of_group = std::exchange(begins_group, false);
    if (pictures_in_packet++ == 0) {
        const bool is_before_leap = latest > current.decoding + longest_reordering;
        latest = is_first_of_group || is_before_leap ? current.presentation
                                                     : std::max(latest, current.presentation);
        return;
    }
    if (reference == before && !is_first_of_group)
        return; // the other field
    const int64_t presentation =
        is_first_of_group ? latest + (reference + 1) * frame_ticks
                          : current.presentation + reference_step(before, reference) * frame_ticks;
    const int64_t decoding = current.decoding + frame_ticks;
    captioned_picture next{.presentation =
                               std::clamp(presentation, decoding, decoding + longest_reordering),
                           .decoding = decoding,
                           .pairs = {}};
    latest = std::max(latest, next.presentation);
    pictures.add(std::exchange(current, std::move(next)));
}
