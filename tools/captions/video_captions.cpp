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

bool is_wanted_of_h264(uint8_t code)
{
    const bool forbidden_zero_bit = (code & 0x80) != 0;
    return !forbidden_zero_bit && (code & 0x1F) == tremsa::h264_nal_sei;
}

bool is_wanted_of_mpeg(uint8_t code)
{
    return code == picture_code || code == user_data_code || code == sequence_code;
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
    in_packet = true;
    seen_picture = false;
    current = {.presentation = presentation, .decoding = decoding, .pairs = {}};
}

void video_captions::add_payload(std::span<const uint8_t> bytes)
{
    if (!in_packet || coding == video_coding::none)
        return;
    units.feed(bytes, coding == video_coding::h264 ? is_wanted_of_h264 : is_wanted_of_mpeg,
               [this](std::span<const uint8_t> unit) { take_unit(unit); });
}

void video_captions::end_packet()
{
    if (!in_packet)
        return;
    units.finish([this](std::span<const uint8_t> unit) { take_unit(unit); });
    in_packet = false;
    pictures.add(std::exchange(current, {}));
}

void video_captions::take_unit(std::span<const uint8_t> unit)
{
    if (coding == video_coding::h264)
        append_sei_pairs(unit, current.pairs);
    else if (unit[0] == user_data_code)
        append_a53_pairs(unit.subspan(1), current.pairs);
    else if (unit[0] == picture_code)
        take_picture_header(unit);
    else if (unit.size() > 4)
        frame_ticks = frame_ticks_of(unit[4] & 0x0F); // behind the sizes and the aspect ratio
}

void video_captions::take_picture_header(std::span<const uint8_t> unit)
{
    if (unit.size() < 3)
        return;
    const int reference = load_be16(unit.data() + 1) >> 6;
    if (!seen_picture) {
        seen_picture = true;
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
