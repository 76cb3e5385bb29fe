// Parameter sets of one kind, as a stream has sent them so far.
#pragma once

#include <cstdint>
#include <map>

namespace tremsa
{

// T is h264_nal_sps or h264_nal_pps. A parser validates an identifier before a set is stored
// under it, so a store holds at most 32 sequence or 256 picture parameter sets.
template <class T>
struct h2645_common_base_store {
    static constexpr uint32_t no_id = 0xFFFFFFFF;

    uint32_t last_id = no_id; // identifier of the set stored last
    std::map<uint32_t, T> sets;
};

} // namespace tremsa
