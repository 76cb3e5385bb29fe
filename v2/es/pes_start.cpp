#include "v2/es/pes_start.hpp"

#include <algorithm>

#include "v2/base/assertion.hpp"

uint8_t video_frame[8192];
size_t video_frame_sz = 0;
pes_start current_pes;

namespace
{

// Leaves the scanner on the first wanted packet whose payload begins in [p, end].
bool scan_for(bool (*is_wanted)(uint32_t), mpeg_pes& pes, const uint8_t* p, const uint8_t* end)
{
    for (;;) {
        p = mpeg_pes_scan(&pes, p, end); // always advances
        if (pes.start_code == 0)
            return false;
        if (pes.payload == nullptr || pes.packet_start == nullptr ||
            pes.packet_start > pes.payload || pes.payload > end)
            continue; // not a PES header, or one cut off by the end
        if (is_wanted(pes.start_code))
            return true;
        if (pes.at_end)
            return false;
    }
}

} // namespace

void video_frame_append(mpeg_ts_packet& pkt)
{
    if (pkt.payload == nullptr || pkt.payload == pkt.payload_end)
        return;

    ASSERT_INVARIANT(video_frame_sz <= sizeof(video_frame), __PRETTY_FUNCTION__);
    const size_t room = sizeof(video_frame) - video_frame_sz;
    const size_t count = std::min(room, static_cast<size_t>(pkt.payload_end - pkt.payload));
    // Not memcpy: where its bound is known GCC makes it an instruction that is slow to start.
    std::copy_n(pkt.payload, count, video_frame + video_frame_sz);
    video_frame_sz += count;
    ASSERT_INVARIANT(video_frame_sz <= sizeof(video_frame), __PRETTY_FUNCTION__);
}

bool pes_start::begin(mpeg_ts_packet& pkt)
{
    video_frame_sz = 0;
    video_frame_append(pkt);
    if (!scanner_)
        scanner_.reset(mpeg_pes_create());
    return scanner_ != nullptr;
}

std::optional<pes_payload> pes_start::find(bool (*is_wanted)(uint32_t start_code))
{
    const uint8_t* frame_end = video_frame + video_frame_sz;
    if (!scanner_ || !scan_for(is_wanted, *scanner_, video_frame, frame_end))
        return std::nullopt;

    const uint8_t* packet_end = scanner_->packet_end != nullptr ? scanner_->packet_end : frame_end;
    return pes_payload{
        .begin = scanner_->payload, .end = std::min(frame_end, packet_end), .pts = scanner_->pts};
}
