#include "v2/es/video_frame.hpp"

#include <algorithm>
#include <cstddef>

#include "v2/base/assertion.hpp"

namespace
{

uint8_t video_frame[8192];
size_t video_frame_sz = 0; // bytes held
mpeg_pes_ptr pes_scanner;

// Leaves the scanner on the first wanted packet whose payload begins in [p, end].
bool scan_for(bool (*is_wanted)(uint32_t), const uint8_t* p, const uint8_t* end)
{
    const mpeg_pes& pes = *pes_scanner;
    for (;;) {
        p = mpeg_pes_scan(pes_scanner.get(), p, end); // always advances
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

void video_frame_clear()
{
    video_frame_sz = 0;
}

void video_frame_append(const mpeg_ts_packet& pkt)
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

bool video_frame_is_full()
{
    return video_frame_sz >= sizeof(video_frame);
}

bool ensure_pes_scanner()
{
    if (!pes_scanner)
        pes_scanner.reset(mpeg_pes_create());
    return pes_scanner != nullptr;
}

pes_payload find_pes_payload(bool (*is_wanted)(uint32_t start_code))
{
    const uint8_t* frame_end = video_frame + video_frame_sz;
    if (!scan_for(is_wanted, video_frame, frame_end))
        return {};

    const uint8_t* s = pes_scanner->payload;
    const uint8_t* f = frame_end;
    if (pes_scanner->packet_end != nullptr)
        f = std::min(f, pes_scanner->packet_end);
    // True whatever the stream holds: a header that PES_packet_length does not cover is none.
    ASSERT_INVARIANT(s >= video_frame && s <= f, __PRETTY_FUNCTION__);
    return {.begin = s, .end = f, .pts = pes_scanner->pts};
}
