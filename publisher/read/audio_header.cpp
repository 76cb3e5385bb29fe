#include "publisher/read/audio_header.hpp"

#include <array>

namespace
{

// sampling_frequency_index, ISO/IEC 14496-3, table 1.18
constexpr std::array<uint32_t, 13> aac_sample_rates = {
    96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350,
};

constexpr std::array<uint32_t, 3> mpeg1_sample_rates = {44100, 48000, 32000};

constexpr size_t adts_header_bytes = 7;
constexpr size_t mpeg_audio_header_bytes = 4;

// adts_fixed_header() and the part of adts_variable_header() that holds the length
//   bytes 0-1  syncword:12 ID:1 layer:2 protection_absent:1
//   bytes 2-3  profile_ObjectType:2 sampling_frequency_index:4 private_bit:1
//              channel_configuration:3 original_copy:1 home:1 copyright bits:2
//              aac_frame_length[12..11]:2
//   bytes 4-5  aac_frame_length[10..0]:11 ...
std::optional<audio_format> read_adts(const uint8_t* p)
{
    if (p[0] != 0xFF || (p[1] & 0xF6) != 0xF0)
        return std::nullopt;
    const uint32_t object_type = (p[2] >> 6) + 1u; // profile 1 is AAC LC, object type 2
    const uint32_t rate_index = (p[2] >> 2) & 0xF;
    const uint32_t channels = ((p[2] & 1u) << 2) | (p[3] >> 6);
    const uint32_t frame_length = ((p[3] & 3u) << 11) | (uint32_t{p[4]} << 3) | (p[5] >> 5);
    if (rate_index >= aac_sample_rates.size() || frame_length < adts_header_bytes)
        return std::nullopt;
    return audio_format{
        .codec = "mp4a.40." + std::to_string(object_type),
        .sample_rate = aac_sample_rates[rate_index],
        .channels = channels == 7 ? 8 : channels,
    };
}

//   bytes 0-1  syncword:11 version:2 layer:2 protection_bit:1
//   byte 2     bitrate_index:4 sampling_frequency:2 padding_bit:1 private_bit:1
//   byte 3     mode:2 ...
std::optional<audio_format> read_mpeg_audio(const uint8_t* p)
{
    if (p[0] != 0xFF || (p[1] & 0xE0) != 0xE0)
        return std::nullopt;
    const uint32_t version = (p[1] >> 3) & 3; // 3: MPEG-1, 2: MPEG-2, 0: MPEG-2.5
    const uint32_t layer_bits = (p[1] >> 1) & 3;
    const uint32_t bitrate_index = p[2] >> 4;
    const uint32_t rate_index = (p[2] >> 2) & 3;
    if (version == 1 || layer_bits == 0 || bitrate_index == 15 || rate_index == 3)
        return std::nullopt;
    const uint32_t divisor = version == 3 ? 1 : version == 2 ? 2 : 4;
    const bool single_channel = (p[3] >> 6) == 3;
    return audio_format{
        // HLS players take all layers of MPEG audio under the name that they have for layer 3.
        .codec = "mp4a.40.34",
        .sample_rate = mpeg1_sample_rates[rate_index] / divisor,
        .channels = single_channel ? 1u : 2u,
        .layer = 4 - layer_bits,
    };
}

template <typename Read>
std::optional<audio_format> find_header(std::span<const uint8_t> bytes, size_t header_bytes,
                                        Read read)
{
    for (size_t i = 0; i + header_bytes <= bytes.size(); i++) {
        if (auto format = read(bytes.data() + i))
            return format;
    }
    return std::nullopt;
}

} // namespace

std::optional<audio_format> find_adts_header(std::span<const uint8_t> bytes)
{
    return find_header(bytes, adts_header_bytes, read_adts);
}

std::optional<audio_format> find_mpeg_audio_header(std::span<const uint8_t> bytes)
{
    return find_header(bytes, mpeg_audio_header_bytes, read_mpeg_audio);
}
