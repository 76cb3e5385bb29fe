#include "v2/es/keyframe.hpp"

#include "v2/demux/pid_map.hpp"

bool is_video_keyframe(const unsigned char* p, const unsigned char* end, PIDmap& pm)
{
    switch (pm.video_kind) {
    case video_kind_h264:
        return is_video_keyframe_h264(p, end, pm);
    case video_kind_mpeg:
        return is_video_keyframe_mpegvideo(p, end, pm);
    default:
        return false;
    }
}
