#include "tools/caption_feed/cue_packet.hpp"

bool build_cue_packet(const caption_cue& cue, uint64_t service, std::string_view language,
                      comm_packet_builder& packet)
{
    return packet.begin("vtt") && packet.add_uint64("service", service) &&
           packet.add_text("language", language) && packet.add_int64("start", cue.start_ms) &&
           packet.add_int64("end", cue.end_ms) &&
           packet.add_int64("now", cue.start_ms) && // not negative: the end is final
           packet.add_uint64("mpeg timestamp", cue.stream_ticks) &&
           packet.add_text("text", cue.text) && packet.add_text("identifier", cue.identifier) &&
           packet.add_text("cue settings", cue.settings);
}
