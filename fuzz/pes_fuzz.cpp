// The PES and MPEG video scanners, and the MPEG video keyframe test.

#include <tuple>

#include "fuzz/fuzz_input.hpp"
#include "toolkit/pes/mpeg_video_scanner.hpp"
#include "toolkit/pes/pes_scanner.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/es/keyframe.hpp"

namespace
{

void scan_pes(const uint8_t* p, const uint8_t* end)
{
    const mpeg_pes_ptr pes{mpeg_pes_create()};
    for (;;) {
        const uint8_t* next = mpeg_pes_scan(pes.get(), p, end);
        if (pes->start_code == 0)
            break;
        require(next > p && next <= end);
        require(pes->pts < int64_t{1} << 33);
        if (pes->payload != nullptr) {
            require(pes->packet_start < pes->payload && pes->payload <= end);
            require(pes->packet_end == nullptr || pes->payload <= pes->packet_end);
        }
        p = next;
    }
}

void scan_video(const uint8_t* p, const uint8_t* end)
{
    const mpeg_video_ptr video{mpeg_video_create()};
    for (;;) {
        const uint8_t* next = mpeg_video_scan(video.get(), p, end);
        if (video->start_code == 0)
            break;
        require(next > p && next <= end);
        mpeg_video_picture_header picture;
        std::ignore = mpeg_video_decode_picture_header(video->code_ptr, end, &picture);
        p = next;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    scan_pes(data, data + size);
    scan_video(data, data + size);
    PIDmap pm;
    pm.video_kind = video_kind_mpeg;
    std::ignore = is_video_keyframe(data, data + size, pm);
    return 0;
}
