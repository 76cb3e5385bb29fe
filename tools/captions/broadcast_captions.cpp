#include "tools/captions/broadcast_captions.hpp"

#include <algorithm>
#include <set>
#include <utility>

#include "toolkit/big_endian.hpp"

namespace
{

// Teletext may come a little behind the pictures of its time.
constexpr int64_t teletext_delay = pts_ticks_per_second;

constexpr size_t largest_pes_payload = 65536;

bool can_be_read(const caption_service& service)
{
    return service.kind != caption_kind::teletext || teletext_is_built_in;
}

bool is_video_track(const caption_track& track)
{
    return track.service.kind != caption_kind::teletext;
}

bool reads(const caption_track& track, const caption_service& service)
{
    return track.is_read && track.service.kind == service.kind &&
           track.service.number == service.number;
}

void append_cues(caption_track& track, const screen_cues& from)
{
    track.cues.insert(track.cues.end(), from.cues.begin(), from.cues.end());
    track.lost += from.lost;
    for (; track.cues.size() > most_kept_cues; ++track.lost)
        track.cues.pop_front();
}

void clear_cues(screen_cues& screen)
{
    screen.cues.clear();
    screen.lost = 0;
}

} // namespace

void broadcast_captions::feed(std::span<uint8_t> bytes)
{
    packets.feed(bytes, [this](std::span<uint8_t> packet) { take_packet(packet); });
    collect_cues();
}

void broadcast_captions::lose_bytes()
{
    packets.drop();
    video.end_packet();
    video.pictures.finish();
    show_pictures();
    video_pes.drop();
    channel_packets.lose();
    for (followed_teletext& stream : teletext) {
        stream.pes.drop();
        stream.in_packet = false;
        stream.pages.lose_packets();
    }
}

void broadcast_captions::finish()
{
    video.end_packet();
    forget_video();
    forget_teletext();
    collect_cues();
}

void broadcast_captions::take_packet(std::span<uint8_t> bytes)
{
    // Nearly all packets are of a picture of which enough has been seen.
    const uint16_t pid = load_be16(&bytes[1]) & ts_pid_mask;
    const bool payload_unit_start = (bytes[1] & 0x40) != 0;
    if (pid == video_pid && video_pid != 0 && video_pes.at == pes_pieces::state::outside &&
        !payload_unit_start) {
        video_pes.skip();
        return;
    }
    mpeg_ts_packet packet;
    if (pid == ts_null_pid || mpeg_ts_decode(packet, bytes.data(), bytes.size()) == 0)
        return;
    if (video_pid != 0 && packet.pid == video_pid)
        take_video(packet);
    else if (const auto stream = std::ranges::find(teletext, packet.pid, &followed_teletext::pid);
             stream != teletext.end())
        take_teletext(*stream, packet);
    else if (tables.take(packet))
        follow_streams();
}

void broadcast_captions::follow_streams()
{
    if (all_services) {
        end_tracks_announced_no_more();
        follow_announcements();
    }
    follow_video();
    follow_teletext();
}

void broadcast_captions::end_tracks_announced_no_more()
{
    const auto has_gone = [this](const caption_track& track) {
        return track.is_announced &&
               std::ranges::count(tables.streams.services, track.service) == 0;
    };
    for (const caption_track& track : tracks) {
        screen_cues* const shown = cues_of(track.service);
        if (shown != nullptr && track.is_read && has_gone(track))
            shown->forget();
    }
    collect_cues();
    for (caption_track& track : tracks)
        track.is_read = !has_gone(track);
}

void broadcast_captions::follow_announcements()
{
    for (const caption_service& service : tables.streams.services) {
        const auto reads_it = [&service](const caption_track& track) {
            return reads(track, service);
        };
        const auto can_go_on = [&service](const caption_track& track) {
            return !track.is_read && track.service.language == service.language;
        };
        if (!can_be_read(service) || std::ranges::any_of(tracks, reads_it))
            continue;
        const auto idle = std::ranges::find_if(tracks, can_go_on);
        if (idle != tracks.end()) {
            idle->service = service;
            idle->is_read = true;
        } else if (tracks.size() < most_tracks) {
            tracks.push_back({.service = service, .is_announced = true});
        }
    }
}

void broadcast_captions::follow_video()
{
    for (const caption_track& track : tracks)
        if (track.service.kind == caption_kind::cea708)
            services.try_emplace(track.service.number);
    const programme_streams& streams = tables.streams;
    const video_coding wanted =
        std::ranges::any_of(tracks, is_video_track) ? streams.video : video_coding::none;
    if (video_pid == streams.video_pid && video.coding == wanted)
        return;
    video.end_packet();
    forget_video();
    video_pid = streams.video_pid;
    video_pes.drop();
    video.start(wanted);
}

void broadcast_captions::take_video(const mpeg_ts_packet& packet)
{
    const pes_piece piece = video_pes.take(packet);
    if (piece.ends_before)
        video.end_packet();
    if (piece.begins)
        begin_picture(piece);
    video.add_payload(piece.payload);
    if (piece.ends)
        video.end_packet();
    if (!video.in_packet && video_pes.at == pes_pieces::state::payload)
        video_pes.pass_over();
    show_pictures();
}

void broadcast_captions::begin_picture(const pes_piece& piece)
{
    if (piece.pts) {
        const int64_t dts = piece.dts.value_or(*piece.pts);
        const int64_t now = clock.unwrapped(dts);
        const auto delay = static_cast<int64_t>(static_cast<uint64_t>(*piece.pts - dts) & pts_mask);
        if (decoding >= 0 && !is_continuous(decoding, now)) {
            forget_video();
            forget_teletext();
        }
        decoding = now;
        video.begin_packet(now + (delay <= longest_reordering ? delay : 0), now);
    } else if (decoding >= 0) {
        video.continue_packet();
    }
    for (followed_teletext& stream : teletext)
        if (stream.time >= 0)
            stream.pages.advance(decoding - teletext_delay);
}

void broadcast_captions::show_pictures()
{
    while (!video.pictures.ready.empty()) {
        const captioned_picture picture = std::move(video.pictures.ready.front());
        video.pictures.ready.pop_front();
        for (cea608_field& field : fields)
            field.advance(picture.presentation);
        for (auto& [number, service] : services)
            service.advance(picture.presentation);
        for (const cc_pair& pair : picture.pairs)
            show_pair(picture.presentation, pair);
    }
}

void broadcast_captions::show_pair(int64_t time, const cc_pair& pair)
{
    if (pair.type == cc_type::field_1 || pair.type == cc_type::field_2) {
        fields[static_cast<size_t>(pair.type)].take(time, pair.first, pair.second);
        return;
    }
    const auto reset_all = [this, time] {
        for (auto& [number, service] : services)
            service.reset(time);
    };
    channel_packets.take(pair, reset_all, [this, time](int number, std::span<const uint8_t> block) {
        const auto service = services.find(number);
        if (service != services.end())
            service->second.take(time, block);
    });
}

// What was shown ends, since what follows has another clock or is another stream.
void broadcast_captions::forget_video()
{
    video.pictures.finish();
    show_pictures();
    for (cea608_field& field : fields)
        field.forget();
    channel_packets.drop();
    for (auto& [number, service] : services)
        service.forget();
    decoding = -1;
}

// A page is read from the stream whose descriptor announces it, or else from the first. There is
// one.
uint16_t broadcast_captions::teletext_pid(int page) const
{
    const std::vector<teletext_stream_entry>& entries = tables.streams.teletext;
    const auto announces = [page](const teletext_stream_entry& entry) {
        return std::ranges::count(entry.services, page, &caption_service::number) != 0;
    };
    const auto found = std::ranges::find_if(entries, announces);
    return found == entries.end() ? entries.front().pid : found->pid;
}

// Pages that stay where they are are read on without a break.
void broadcast_captions::follow_teletext()
{
    std::map<uint16_t, std::set<int>> wanted; // pages by PID
    for (const teletext_stream_entry& entry : tables.streams.teletext)
        wanted.try_emplace(entry.pid);
    for (const caption_track& track : tracks)
        if (track.is_read && track.service.kind == caption_kind::teletext && !wanted.empty())
            wanted[teletext_pid(track.service.number)].insert(track.service.number);

    const auto stays = [&wanted](uint16_t pid, int page) {
        const auto pages = wanted.find(pid);
        return pages != wanted.end() && pages->second.contains(page);
    };
    for (followed_teletext& stream : teletext)
        for (auto& [number, page] : stream.pages.pages)
            if (!stays(stream.pid, number))
                page.cues.forget();
    collect_cues();
    for (followed_teletext& stream : teletext)
        std::erase_if(stream.pages.pages,
                      [&](const auto& page) { return !stays(stream.pid, page.first); });
    std::erase_if(teletext, [&wanted](const followed_teletext& stream) {
        return !wanted.contains(stream.pid);
    });
    for (const auto& [pid, pages] : wanted) {
        auto stream = std::ranges::find(teletext, pid, &followed_teletext::pid);
        if (stream == teletext.end()) {
            teletext.emplace_back().pid = pid;
            stream = std::prev(teletext.end());
        }
        for (const int page : pages)
            stream->pages.want(page);
    }
}

void broadcast_captions::take_teletext(followed_teletext& stream, const mpeg_ts_packet& packet)
{
    if (stream.pages.pages.empty())
        return;
    const pes_piece piece = stream.pes.take(packet);
    if (piece.ends_before)
        stream.in_packet = false; // cut off
    if (piece.lost_before)
        stream.pages.lose_packets();
    if (piece.begins)
        begin_teletext(stream, piece);
    if (!stream.in_packet || stream.payload.size() + piece.payload.size() > largest_pes_payload)
        return;
    stream.payload.insert(stream.payload.end(), piece.payload.begin(), piece.payload.end());
    if (piece.ends) {
        stream.in_packet = false;
        stream.pages.take(stream.time, stream.payload);
    }
}

// One without a time stamp goes with the one before it. Where none has any, the pictures' clock is
// the only one.
void broadcast_captions::begin_teletext(followed_teletext& stream, const pes_piece& piece)
{
    if (piece.pts) {
        const int64_t now = clock.unwrapped(*piece.pts);
        // Where only subtitles are sent, hours may lie between two of them. Back from a wrong stamp
        // far ahead, what was shown since then is of no use.
        const bool is_pause = now > stream.time && decoding >= 0 && is_continuous(decoding, now);
        if (stream.time >= 0 && !is_continuous(stream.time, now) && !is_pause)
            stream.pages.forget();
        stream.time = now;
        stream.has_time_stamps = true;
        stream.pages.advance(now - teletext_delay);
    } else if (!stream.has_time_stamps) {
        stream.time = decoding;
    }
    stream.in_packet = stream.time >= 0;
    stream.payload.clear();
}

void broadcast_captions::forget_teletext()
{
    for (followed_teletext& stream : teletext) {
        stream.pages.forget();
        stream.time = -1;
    }
}

// What a decoder shows of the service; null where none reads it.
screen_cues* broadcast_captions::cues_of(const caption_service& service)
{
    if (service.kind == caption_kind::cea608) {
        const auto index = static_cast<size_t>(service.number - 1);
        return &fields[index / 2].channels[index % 2].cues;
    }
    if (service.kind == caption_kind::cea708) {
        const auto found = services.find(service.number);
        return found == services.end() ? nullptr : &found->second.cues;
    }
    for (followed_teletext& stream : teletext)
        if (const auto page = stream.pages.pages.find(service.number);
            page != stream.pages.pages.end())
            return &page->second.cues;
    return nullptr;
}

// Two tracks may have the same service; some services have no track.
void broadcast_captions::collect_cues()
{
    for (caption_track& track : tracks)
        if (screen_cues* const from = cues_of(track.service); from != nullptr && track.is_read)
            append_cues(track, *from);
    for (cea608_field& field : fields)
        for (cea608_channel& channel : field.channels)
            clear_cues(channel.cues);
    for (auto& [number, service] : services)
        clear_cues(service.cues);
    for (followed_teletext& stream : teletext)
        for (auto& [number, page] : stream.pages.pages)
            clear_cues(page.cues);
}
