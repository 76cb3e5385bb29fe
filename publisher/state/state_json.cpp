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

// The fields of each record and their names stand in one place for both ways: `take` is called with
// each.
template <typename Place, typename Take>
void for_each_field_of_place(Place& place, Take take)
{
    take("path", place.path);
    take("base", place.position.base);
    take("number", place.position.number);
    take("offset", place.position.offset);
    take("last_inode", place.position.last_inode);
    take("last_bytes", place.position.last_bytes);
    take("last_listed", place.position.last_listed);
    take("is_matched", place.is_matched);
    take("clock_offset", place.clock_offset);
    take("is_last", place.is_last);
}

template <typename Video, typename Take>
void for_each_field_of_video(Video& video, Take take)
{
    take("codec", video.codec);
    take("width", video.width);
    take("height", video.height);
    take("frame_rate", video.frame_rate);
}

template <typename Timeline, typename Take>
void for_each_field_of_timeline(Timeline& line, Take take)
{
    take("begun", line.begun);
    take("clock", line.clock);
    take("ticks", line.ticks);
    take("date", line.date);
}

template <typename Range, typename Take>
void for_each_field_of_date_range(Range& range, Take take)
{
    take("id", range.id);
    take("event", range.event);
    take("type", range.type);
    take("kind", range.kind);
    take("start", range.start);
    take("planned", range.planned);
    take("returns", range.returns);
    take("end", range.end);
    take("section", range.section);
    take("end_section", range.end_section);
    take("clock", range.clock);
    take("told", range.told);
    take("repeated", range.repeated);
    take("end_told", range.end_told);
}

// Writes fields into the object.
auto into(json& value)
{
    return [&value](const char* name, const auto& field) {
        value[name] = field;
    };
}

// Reads them out of it; throws json::exception where one is missing.
auto out_of(const json& value)
{
    return [&value](const char* name, auto& field) {
        value.at(name).get_to(field);
    };
}

json to_value(const source_place& place)
{
    json value;
    for_each_field_of_place(place, into(value));
    value["written_ms"] = place.position.written_ms;
    return value;
}

source_place place_of(const json& value)
{
    source_place place;
    for_each_field_of_place(place, out_of(value));
    place.position.written_ms = value.value("written_ms", int64_t{0}); // older states lack it
    return place;
}

json to_value(const rung_place& rung)
{
    json sources = json::array();
    for (const source_place& place : rung.sources)
        sources.push_back(to_value(place));
    return {{"name", rung.name}, {"layout", rung.layout}, {"sources", sources}};
}

rung_place rung_place_of(const json& value)
{
    rung_place rung{.name = value.at("name"), .layout = value.at("layout"), .sources = {}};
    for (const json& place : value.at("sources"))
        rung.sources.push_back(place_of(place));
    return rung;
}

json to_value(const rung_facts& rung)
{
    json audio = json::array();
    for (const audio_facts& facts : rung.streams.audio)
        audio.push_back(
            {{"codec", facts.codec}, {"language", facts.language}, {"channels", facts.channels}});
    json video;
    for_each_field_of_video(rung.streams.video, into(video));
    return {
        {"name", rung.name},
        {"video", video},
        {"audio", audio},
        {"caption_channels", rung.streams.captions.channels},
        {"caption_services", rung.streams.captions.services},
        {"peak_bandwidth", rung.peak_bandwidth},
        {"average_bandwidth", rung.average_bandwidth},
        {"keyframe_peak_bandwidth", rung.keyframe_peak_bandwidth},
        {"keyframe_average_bandwidth", rung.keyframe_average_bandwidth},
    };
}

rung_facts rung_facts_of(const json& value)
{
    rung_facts rung;
    value.at("name").get_to(rung.name);
    for_each_field_of_video(rung.streams.video, out_of(value.at("video")));
    for (const json& audio : value.at("audio"))
        rung.streams.audio.push_back({
            .codec = audio.at("codec"),
            .language = audio.at("language"),
            .channels = audio.at("channels"),
        });
    value.at("caption_channels").get_to(rung.streams.captions.channels);
    value.at("caption_services").get_to(rung.streams.captions.services);
    value.at("peak_bandwidth").get_to(rung.peak_bandwidth);
    value.at("average_bandwidth").get_to(rung.average_bandwidth);
    // States of before they were listed do not have them.
    rung.keyframe_peak_bandwidth = value.value("keyframe_peak_bandwidth", uint64_t{0});
    rung.keyframe_average_bandwidth = value.value("keyframe_average_bandwidth", uint64_t{0});
    return rung;
}

json to_value(const timeline& line)
{
    json ranges = json::array();
    for (const date_range& range : line.ranges)
        for_each_field_of_date_range(range, into(ranges.emplace_back()));
    json value;
    for_each_field_of_timeline(line, into(value));
    value["arrival"] = line.arrival;
    value["ranges"] = ranges;
    return value;
}

timeline timeline_of(const json& value)
{
    timeline line;
    for_each_field_of_timeline(line, out_of(value));
    value.at("arrival").get_to(line.arrival);
    for (const json& range : value.at("ranges"))
        for_each_field_of_date_range(line.ranges.emplace_back(), out_of(range));
    return line;
}

} // namespace

std::string to_json(const stored_head& head)
{
    json rungs = json::array();
    for (const rung_place& rung : head.rungs)
        rungs.push_back(to_value(rung));
    return dump({
        {"next_sequence", head.next_sequence},
        {"discontinuities", head.discontinuities},
        {"first_sequence", head.first_sequence},
        {"ended", head.ended},
        {"boot_id", head.boot_id},
        {"timeline", to_value(head.line)},
        {"rungs", rungs},
    });
}

bool from_json(const std::string& text, stored_head& head)
{
    return parse(text, [&head](const json& value) {
        value.at("next_sequence").get_to(head.next_sequence);
        value.at("discontinuities").get_to(head.discontinuities);
        value.at("first_sequence").get_to(head.first_sequence);
        value.at("ended").get_to(head.ended);
        value.at("boot_id").get_to(head.boot_id);
        head.line = timeline_of(value.at("timeline"));
        for (const json& rung : value.at("rungs"))
            head.rungs.push_back(rung_place_of(rung));
    });
}

std::string to_json(const master_facts& master)
{
    json rungs = json::array();
    for (const rung_facts& rung : master.rungs)
        rungs.push_back(to_value(rung));
    json shared = json::array();
    for (const track& t : master.shared)
        shared.push_back({{"name", t.name},
                          {"kind", static_cast<int>(t.kind)},
                          {"language", t.language},
                          {"codec", t.codec},
                          {"is_default", t.is_default}});
    return dump({{"rungs", rungs}, {"shared", shared}, {"independent", master.independent}});
}

bool from_json(const std::string& text, master_facts& master)
{
    return parse(text, [&master](const json& value) {
        for (const json& rung : value.at("rungs"))
            master.rungs.push_back(rung_facts_of(rung));
        for (const json& t : value.at("shared"))
            master.shared.push_back({
                .name = t.at("name"),
                .kind = static_cast<track_kind>(t.at("kind").get<int>()),
                .language = t.at("language"),
                .codec = t.at("codec"),
                .is_default = t.at("is_default"),
            });
        value.at("independent").get_to(master.independent);
    });
}

std::string to_json(const std::vector<segment_file>& files)
{
    json value = json::object();
    for (const segment_file& file : files) {
        if (file.first_keyframe == 0) {
            value[file.track] = file.bytes;
            continue;
        }
        json keyframes = json::array();
        for (const keyframe& k : file.keyframes)
            keyframes.push_back({k.begin, k.bytes, k.at});
        value[file.track] = {
            {"bytes", file.bytes},
            {"first_keyframe", file.first_keyframe},
            {"keyframes", keyframes},
        };
    }
    return dump(value);
}

bool from_json(const std::string& text, std::vector<segment_file>& files)
{
    return parse(text, [&files](const json& value) {
        for (const auto& [track, facts] : value.items()) {
            segment_file file{.track = track};
            if (facts.is_object()) {
                facts.at("bytes").get_to(file.bytes);
                facts.at("first_keyframe").get_to(file.first_keyframe);
                for (const json& k : facts.at("keyframes"))
                    file.keyframes.push_back({.begin = k.at(0), .bytes = k.at(1), .at = k.at(2)});
            } else {
                facts.get_to(file.bytes);
            }
            files.push_back(std::move(file));
        }
    });
}
