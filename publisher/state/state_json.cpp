#include "publisher/state/state_json.hpp"

#include <nlohmann/json.hpp>

using nlohmann::json;

namespace
{

template <typename Take>
bool parse(const std::string& text, Take take)
{
    try {
        take(json::parse(text));
        return true;
    } catch (const json::exception&) {
        return false;
    }
}

// Text of a stream need not be UTF-8; what is not is replaced.
std::string dump(const json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json to_value(const source_place& place)
{
    return {
        {"path", place.path},
        {"base", place.position.base},
        {"number", place.position.number},
        {"offset", place.position.offset},
        {"last_inode", place.position.last_inode},
        {"last_bytes", place.position.last_bytes},
        {"last_listed", place.position.last_listed},
        {"is_matched", place.is_matched},
        {"clock_offset", place.clock_offset},
        {"is_last", place.is_last},
    };
}

source_place place_of(const json& value)
{
    source_place place;
    value.at("path").get_to(place.path);
    value.at("base").get_to(place.position.base);
    value.at("number").get_to(place.position.number);
    value.at("offset").get_to(place.position.offset);
    value.at("last_inode").get_to(place.position.last_inode);
    value.at("last_bytes").get_to(place.position.last_bytes);
    value.at("last_listed").get_to(place.position.last_listed);
    value.at("is_matched").get_to(place.is_matched);
    value.at("clock_offset").get_to(place.clock_offset);
    value.at("is_last").get_to(place.is_last);
    return place;
}

} // namespace

std::string to_json(const stored_head& head)
{
    json places = json::array();
    for (const source_place& place : head.places)
        places.push_back(to_value(place));
    return dump({
        {"next_sequence", head.next_sequence},
        {"discontinuities", head.discontinuities},
        {"ended", head.ended},
        {"longest_playlist", head.longest_playlist},
        {"boot_id", head.boot_id},
        {"timeline",
         {{"begun", head.line.begun},
          {"clock", head.line.clock},
          {"ticks", head.line.ticks},
          {"date", head.line.date},
          {"layout", head.line.layout}}},
        {"sources", places},
    });
}

bool from_json(const std::string& text, stored_head& head)
{
    return parse(text, [&head](const json& value) {
        value.at("next_sequence").get_to(head.next_sequence);
        value.at("discontinuities").get_to(head.discontinuities);
        value.at("ended").get_to(head.ended);
        value.at("longest_playlist").get_to(head.longest_playlist);
        value.at("boot_id").get_to(head.boot_id);
        const json& line = value.at("timeline");
        line.at("begun").get_to(head.line.begun);
        line.at("clock").get_to(head.line.clock);
        line.at("ticks").get_to(head.line.ticks);
        line.at("date").get_to(head.line.date);
        line.at("layout").get_to(head.line.layout);
        for (const json& place : value.at("sources"))
            head.places.push_back(place_of(place));
    });
}

std::string to_json(const master_facts& master)
{
    json audio = json::array();
    for (const audio_facts& facts : master.streams.audio)
        audio.push_back(
            {{"codec", facts.codec}, {"language", facts.language}, {"channels", facts.channels}});
    json tracks = json::array();
    for (const track& t : master.tracks)
        tracks.push_back({{"name", t.name},
                          {"kind", static_cast<int>(t.kind)},
                          {"language", t.language},
                          {"is_default", t.is_default}});
    const video_facts& video = master.streams.video;
    return dump({
        {"video",
         {{"codec", video.codec},
          {"width", video.width},
          {"height", video.height},
          {"frame_rate", video.frame_rate}}},
        {"audio", audio},
        {"caption_channels", master.streams.captions.channels},
        {"caption_services", master.streams.captions.services},
        {"tracks", tracks},
        {"peak_bandwidth", master.peak_bandwidth},
        {"average_bandwidth", master.average_bandwidth},
        {"independent", master.independent},
    });
}

bool from_json(const std::string& text, master_facts& master)
{
    return parse(text, [&master](const json& value) {
        const json& video = value.at("video");
        video.at("codec").get_to(master.streams.video.codec);
        video.at("width").get_to(master.streams.video.width);
        video.at("height").get_to(master.streams.video.height);
        video.at("frame_rate").get_to(master.streams.video.frame_rate);
        for (const json& audio : value.at("audio"))
            master.streams.audio.push_back({
                .codec = audio.at("codec"),
                .language = audio.at("language"),
                .channels = audio.at("channels"),
            });
        value.at("caption_channels").get_to(master.streams.captions.channels);
        value.at("caption_services").get_to(master.streams.captions.services);
        for (const json& t : value.at("tracks"))
            master.tracks.push_back({
                .name = t.at("name"),
                .kind = static_cast<track_kind>(t.at("kind").get<int>()),
                .language = t.at("language"),
                .is_default = t.at("is_default"),
            });
        value.at("peak_bandwidth").get_to(master.peak_bandwidth);
        value.at("average_bandwidth").get_to(master.average_bandwidth);
        value.at("independent").get_to(master.independent);
    });
}

std::string to_json(const std::vector<segment_file>& files)
{
    json value = json::object();
    for (const segment_file& file : files)
        value[file.track] = file.bytes;
    return dump(value);
}

bool from_json(const std::string& text, std::vector<segment_file>& files)
{
    return parse(text, [&files](const json& value) {
        for (const auto& [track, bytes] : value.items())
            files.push_back({.track = track, .bytes = bytes});
    });
}
