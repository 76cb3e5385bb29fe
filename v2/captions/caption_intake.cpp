#include "v2/captions/caption_intake.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "toolkit/comm/comm_wire.hpp"
#include "v2/base/assertion.hpp"
#include "v2/base/text.hpp"

comm_socket_v4_ptr caption_socket;
std::map<std::string, std::deque<vtt_cue>> vtt_queues;

namespace
{

constexpr uint64_t max_service_number = 256; // on the wire, where services count from 1
constexpr size_t max_waiting_cues = 128;     // before a cue is appended, so 129 may wait
constexpr size_t max_language_bytes = 255;   // as many as a file name has

struct text_field {
    std::string_view name;
    std::string vtt_cue::*field;
};
constexpr text_field text_fields[] = {
    {"text", &vtt_cue::text},
    {"identifier", &vtt_cue::identifier},
    {"cue settings", &vtt_cue::cue_settings},
    {"language", &vtt_cue::language},
};

struct time_field {
    std::string_view name;
    int64_t vtt_cue::*field;
};
constexpr time_field time_fields[] = {
    {"start", &vtt_cue::start},
    {"end", &vtt_cue::end},
    {"now", &vtt_cue::now},
    {"frame", &vtt_cue::frame},
};

// A language is written into file names and into quoted strings of the master playlist, which hold
// neither quotes nor line breaks (RFC 8216 4.2).
bool can_be_language(std::string_view text)
{
    return text.size() <= max_language_bytes && std::ranges::none_of(text, [](char c) {
               const auto byte = static_cast<unsigned char>(c);
               return byte < 0x20 || byte == 0x7F || c == '"';
           });
}

bool read_text(vtt_cue& cue, std::string_view name, const char* value)
{
    if (name == "language" && !can_be_language(value))
        return false;
    for (const text_field& row : text_fields) {
        if (row.name == name) {
            cue.*row.field = value;
            return true;
        }
    }
    return false;
}

bool read_time(vtt_cue& cue, std::string_view name, int64_t value)
{
    for (const time_field& row : time_fields) {
        if (row.name == name) {
            cue.*row.field = value;
            return true;
        }
    }
    return false;
}

bool read_unsigned(vtt_cue& cue, std::string_view name, uint64_t value)
{
    if (name == "service") {
        if (1 <= value && value <= max_service_number)
            cue.service = static_cast<uint32_t>(value - 1);
        return true;
    }
    if (name == "mpeg timestamp") {
        cue.mpeg_timestamp = value;
        return true;
    }
    return false;
}

// Takes the pair into the cue. False for an unknown name, or a known one with the wrong type, a
// short value or what cannot be a language.
bool read_pair(vtt_cue& cue, const comm_socket_v4_packet* packet,
               const comm_socket_v4_packet_nv_pair* pair, std::string_view name)
{
    const bool holds_integer = pair->length() >= comm_integer_bytes;
    switch (pair->type()) {
    case comm_type_text:
        return read_text(cue, name, comm_socket_v4_packet_get_nv_pair_value_text(packet, pair));
    case comm_type_uint64:
        return holds_integer &&
               read_unsigned(cue, name,
                             *comm_socket_v4_packet_get_nv_pair_value_uint64(packet, pair));
    case comm_type_int64:
        return holds_integer &&
               read_time(cue, name, *comm_socket_v4_packet_get_nv_pair_value_int64(packet, pair));
    default:
        return false;
    }
}

vtt_cue read_cue(const comm_socket_v4_packet* packet)
{
    vtt_cue cue;
    for (unsigned long i = 0; i < packet->nv_entries(); i++) {
        const comm_socket_v4_packet_nv_pair* pair = packet->nv_entry(i);
        if (pair == nullptr)
            continue;
        const char* name = comm_socket_v4_packet_get_nv_pair_name(packet, pair);
        if (name == nullptr)
            continue;
        if (!read_pair(cue, packet, pair, name))
            std::fprintf(stderr, "Unhandled nv '%s' '%s'\n", name,
                         comm_socket_v4_packet_get_nv_pair_value_text(packet, pair));
    }
    return cue;
}

void queue_cue(const std::string& lang, vtt_cue&& cue, const cmdopts& opts)
{
    const auto [entry, is_new] = vtt_queues.try_emplace(lang);
    if (is_new)
        std::fprintf(stderr, "New language '%s'\n", lang.c_str());

    std::deque<vtt_cue>& queue = entry->second;
    if (queue.size() > max_waiting_cues) {
        std::fprintf(stderr, "VTT queue '%s' overflow by %zu\n", lang.c_str(),
                     queue.size() - max_waiting_cues);
        while (queue.size() > max_waiting_cues)
            queue.pop_front();
    }
    if (!opts.no_multilevel)
        queue.push_back(std::move(cue));
}

} // namespace

bool check_socket(const cmdopts& opts)
{
    if (!caption_socket)
        return true;
    if (comm_socket_v4_idle(caption_socket.get()) < 0)
        return false;

    const comm_socket_v4_packet_ptr packet{
        comm_socket_v4_client_get_packet_from_server(caption_socket.get())};
    if (!packet)
        return true;
    if ((packet->status() & comm_status_usable) != comm_status_usable ||
        std::strcmp(packet->command(), "vtt") != 0)
        return true;

    vtt_cue cue = read_cue(packet.get());
    if (cue.service == vtt_no_service) {
        std::fprintf(stderr, "Bad service %d\n", static_cast<int>(cue.service));
        return true;
    }
    const std::string lang =
        cue.language.empty() ? format_text("v%" PRIu32, cue.service) : cue.language;
    ASSERT_INVARIANT(!lang.empty(), __PRETTY_FUNCTION__);
    queue_cue(lang, std::move(cue), opts);
    return true;
}
