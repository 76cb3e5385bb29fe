#include "tools/ts_prepare/description_text.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "toolkit/pts_clock.hpp"

namespace
{

[[gnu::format(printf, 1, 2)]] std::string text_of(const char* format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments); // a longer text is cut
    va_end(arguments);
    return text;
}

double seconds_of(const stream_description& d)
{
    return static_cast<double>(d.clock_ticks) / pts_ticks_per_second;
}

double bit_rate_of(const stream_description& d)
{
    return d.clock_ticks == 0 ? 0 : static_cast<double>(d.bytes) * 8 / seconds_of(d);
}

const char* use_name(stream_use use)
{
    switch (use) {
    case stream_use::video:
        return "video";
    case stream_use::audio:
        return "audio";
    case stream_use::secondary_audio:
        return "secondary audio";
    case stream_use::passed:
        break;
    }
    return "passed";
}

std::string use_in_words(const described_stream& stream)
{
    const std::string codec = stream.codec;
    if (stream.use != stream_use::passed)
        return std::string("taken as ") + use_name(stream.use);
    if (codec.ends_with("video"))
        return codec.starts_with("H.264") || codec.starts_with("MPEG-1") ||
                       codec.starts_with("MPEG-2")
                   ? "in the fragments; keyframes are those of the first video stream"
                   : "in the fragments, but counts as no video: fragments are cut at the audio";
    if (codec.find("audio") != std::string::npos)
        return "in the fragments; no rendition of its own with --separate-streams";
    return "in the fragments, except with --separate-streams";
}

std::string programme_in_words(const stream_description& d, size_t place)
{
    const described_programme& programme = d.programmes[place];
    std::string text = text_of("Programme %u, PMT %04xh", programme.number, programme.pmt_pid);
    if (programme.has_pmt)
        text += text_of(", PCR %04xh", programme.pcr_pid);
    else
        text += ", no PMT was found";
    if (place != d.followed)
        text += "; another one is followed (see --programme)";
    text += "\n";
    for (const described_stream& stream : programme.streams) {
        text += text_of("  %04xh  %s", stream.pid, stream.codec);
        text += place == d.followed ? ": " + use_in_words(stream) + "\n" : "\n";
    }
    return text;
}

std::string distance_in_words(const stream_description& d, const char* name,
                              const table_distance& distance)
{
    if (distance.count == 0)
        return std::string("no ") + name;
    std::string text =
        text_of("%s after at most %.0f kB", name, static_cast<double>(distance.longest) / 1000);
    if (bit_rate_of(d) > 0)
        text += text_of(" (%.2f s)", static_cast<double>(distance.longest) * 8 / bit_rate_of(d));
    return text;
}

struct spread {
    double shortest = 0;
    double longest = 0;
};

spread spread_of(const std::vector<double>& values)
{
    if (values.empty())
        return {};
    const auto [shortest, longest] = std::ranges::minmax_element(values);
    return {.shortest = *shortest, .longest = *longest};
}

std::string seconds_in_words(const spread& seconds)
{
    if (seconds.longest - seconds.shortest < 0.001)
        return text_of("%.3f s", seconds.longest);
    return text_of("%.3f to %.3f s", seconds.shortest, seconds.longest);
}

// From each keyframe to the next.
std::vector<double> keyframe_distances(const stream_description& d)
{
    std::vector<double> distances;
    for (size_t i = 1; i < d.cut_points.size() && !d.cut_at_audio; i++)
        distances.push_back(
            static_cast<double>(stamp_distance(d.cut_points[i - 1].pts, d.cut_points[i].pts)) /
            pts_ticks_per_second);
    return distances;
}

std::string keyframes_in_words(const stream_description& d)
{
    if (d.cut_at_audio)
        return "No video that is taken: fragments are cut at the audio.\n";
    if (d.cut_points.empty())
        return "No keyframe was found, so nothing would be listed.\n";
    const std::vector<double> distances = keyframe_distances(d);
    if (distances.empty())
        return "One keyframe was found.\n";
    return "A keyframe every " + seconds_in_words(spread_of(distances)) + ".\n";
}

std::string start_in_words(const stream_description& d)
{
    if (d.followed == SIZE_MAX)
        return "Does not start: there is no PAT that names a programme.\n";
    const described_programme& followed = d.programmes[d.followed];
    const auto is_taken = [](const described_stream& s) {
        return s.use != stream_use::passed;
    };
    if (!std::ranges::any_of(followed.streams, is_taken))
        return "Does not start: no stream of the programme is taken.\n";

    std::string text =
        text_of("Starts as it is: %s on a pipe, %s as a file.", starts_on_pipe(d) ? "yes" : "no",
                starts_from_file(d) ? "yes" : "no");
    if (d.format != packet_format::plain)
        text += " It takes packets of 188 bytes only.";
    else if (is_too_short(d))
        text += " It waits for 2 MiB.";
    else if (d.tables_known_at == 0)
        text += " The tables do not come often enough.";
    else
        text +=
            text_of(" It has the tables after %.0f kB; on a pipe they have to come within 557 kB.",
                    static_cast<double>(d.tables_known_at) / 1000);
    return text + " Behind vorn_ts_prepare on a pipe: yes.\n";
}

std::string fragments_in_words(const stream_description& d, int frag_duration)
{
    const std::vector<double> durations = fragment_durations(d, frag_duration, output_begins_at(d));
    const std::string head = text_of("With --frag-duration %d: ", frag_duration);
    if (durations.empty())
        return head + "no fragment ends in what was read.\n";
    const spread seconds = spread_of(durations);
    return head +
           text_of("%zu fragment%s of ", durations.size(), durations.size() == 1 ? "" : "s") +
           seconds_in_words(seconds) +
           (seconds.longest >= frag_duration + 1 ? ", since each ends at a keyframe.\n" : ".\n");
}

std::string faults_in_words(const stream_description& d)
{
    std::string text;
    if (d.continuity_errors != 0)
        text += text_of("%llu continuity errors: packets are missing.\n",
                        static_cast<unsigned long long>(d.continuity_errors));
    if (d.transport_errors != 0)
        text += text_of("%llu packets with transport_error_indicator.\n",
                        static_cast<unsigned long long>(d.transport_errors));
    if (d.skipped_bytes != 0)
        text += text_of("%llu bytes that are no packets.\n",
                        static_cast<unsigned long long>(d.skipped_bytes));
    return text;
}

const char* json_bool(bool value)
{
    return value ? "true" : "false";
}

std::string programme_as_json(const stream_description& d, size_t place)
{
    const described_programme& programme = d.programmes[place];
    std::string json = text_of("{\"number\":%u,\"pmt_pid\":%u,\"pcr_pid\":%u,\"followed\":%s,"
                               "\"streams\":[",
                               programme.number, programme.pmt_pid, programme.pcr_pid,
                               json_bool(place == d.followed));
    for (const described_stream& stream : programme.streams) {
        json += &stream == programme.streams.data() ? "" : ",";
        json += text_of("{\"pid\":%u,\"stream_type\":%u,\"codec\":\"%s\",\"use\":\"%s\"}",
                        stream.pid, stream.stream_type, stream.codec, use_name(stream.use));
    }
    return json + "]}";
}

std::string json_of(const std::vector<double>& seconds)
{
    const spread of_all = spread_of(seconds);
    return text_of("{\"count\":%zu,\"shortest\":%.3f,\"longest\":%.3f}", seconds.size(),
                   of_all.shortest, of_all.longest);
}

} // namespace

std::string description_as_text(const stream_description& d, int frag_duration)
{
    if (d.bytes == 0)
        return "No transport stream was found.\n";
    std::string format = packet_format_name(d.format);
    format[0] = format[0] == 'p' ? 'P' : format[0];
    std::string text = format + text_of("; %.1f MB were read", static_cast<double>(d.bytes) / 1e6);
    if (bit_rate_of(d) > 0)
        text += text_of(", %.1f s at %.3f Mbit/s", seconds_of(d), bit_rate_of(d) / 1e6);
    text += ".\n";
    for (size_t place = 0; place < d.programmes.size(); place++)
        text += programme_in_words(d, place);
    text += "Tables: " + distance_in_words(d, "PAT", d.pat) + ", " +
            distance_in_words(d, "PMT", d.pmt) + ".\n";
    if (d.followed != SIZE_MAX)
        text += keyframes_in_words(d);
    text += start_in_words(d);
    if (!d.cut_points.empty())
        text += fragments_in_words(d, frag_duration);
    return text + faults_in_words(d);
}

std::string description_as_json(const stream_description& d, int frag_duration)
{
    std::string json =
        text_of("{\"format\":\"%s\",\"bytes\":%llu,\"whole\":%s,\"seconds\":%.3f,"
                "\"bit_rate\":%.0f,\"programmes\":[",
                packet_format_name(d.format), static_cast<unsigned long long>(d.bytes),
                json_bool(d.whole), seconds_of(d), bit_rate_of(d));
    for (size_t place = 0; place < d.programmes.size(); place++)
        json += (place == 0 ? "" : ",") + programme_as_json(d, place);
    json += text_of("],\"pat_longest_bytes\":%llu,\"pmt_longest_bytes\":%llu,"
                    "\"tables_known_at\":%llu,\"keyframes\":%zu,\"keyframe_distance\":",
                    static_cast<unsigned long long>(d.pat.longest),
                    static_cast<unsigned long long>(d.pmt.longest),
                    static_cast<unsigned long long>(d.tables_known_at),
                    d.cut_at_audio ? size_t{0} : d.cut_points.size());
    json += json_of(keyframe_distances(d));
    json += text_of(",\"starts_on_pipe\":%s,\"starts_from_file\":%s,\"frag_duration\":%d,"
                    "\"fragments\":",
                    json_bool(starts_on_pipe(d)), json_bool(starts_from_file(d)), frag_duration);
    json += json_of(fragment_durations(d, frag_duration, output_begins_at(d)));
    json +=
        text_of(",\"continuity_errors\":%llu,\"transport_errors\":%llu,\"skipped_bytes\":%llu}\n",
                static_cast<unsigned long long>(d.continuity_errors),
                static_cast<unsigned long long>(d.transport_errors),
                static_cast<unsigned long long>(d.skipped_bytes));
    return json;
}
