// Parameter sets and slices in one range of NAL units, as the keyframe test meets them.

#include <tuple>

#include "fuzz/fuzz_input.hpp"
#include "v2/demux/pid_map.hpp"
#include "v2/es/keyframe.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    PIDmap pm;
    pm.video_kind = video_kind_h264;
    std::ignore = is_video_keyframe(data, data + size, pm);
    std::ignore = is_video_keyframe(data, data + size,
                                    pm); // now with the sets that the first pass has stored
    require(pm.sps_store.sets.size() <= 32);
    require(pm.pps_store.sets.size() <= 256);
    return 0;
}
