// What the first bytes of a coded picture tell: whether a decoder can begin with it, and the format
// that its headers announce. H.264, ITU-T H.264, and MPEG-1/2 video, ISO/IEC 13818-2.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "publisher/read/stream_facts.hpp"
#include "toolkit/h264/h2645_common_base_store.hpp"
#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"

struct picture_facts {
    bool keyframe = false;    // headers and an intra picture
    bool independent = false; // an IDR picture, or a closed group of pictures
    bool has_headers = false; // `format` and `headers` were read from this picture
    video_facts format;
    std::string headers; // the parameter set or sequence header as sent, to be compared
};

// Parameter sets that a stream has sent so far.
struct h264_parameter_sets {
    tremsa::h2645_common_base_store<tremsa::h264_nal_sps> sps;
    tremsa::h2645_common_base_store<tremsa::h264_nal_pps> pps;
};

picture_facts read_h264_picture(std::span<const uint8_t> bytes, h264_parameter_sets& sets,
                                caption_facts& captions);
picture_facts read_mpeg_picture(std::span<const uint8_t> bytes, caption_facts& captions);
