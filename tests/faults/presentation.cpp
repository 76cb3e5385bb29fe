#include "tests/faults/presentation.hpp"

#include <regex>
#include <string_view>

#include "tests/support/packetiser.hpp"

namespace
{

std::string text_of(const byte_string& bytes)
{
    return {bytes.begin(), bytes.end()};
}

// Takes the line from the front of `rest`, with its line break; nothing if there is no whole one.
std::optional<std::string_view> take_line(std::string_view& rest)
{
    const size_t end = rest.find('\n');
    if (end == std::string_view::npos)
        return std::nullopt;
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return line;
}

bool take(std::string_view& rest, std::string_view text)
{
    if (!rest.starts_with(text))
        return false;
    rest.remove_prefix(text.size());
    return true;
}

std::optional<uint64_t> take_number_line(std::string_view& rest)
{
    const auto line = take_line(rest);
    if (!line || line->empty() || line->find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return std::stoull(std::string(*line));
}

bool is_duration(std::string_view line)
{
    static const std::regex pattern(R"([0-9]+\.[0-9]{3},)");
    return std::regex_match(line.begin(), line.end(), pattern);
}

byte_string without_table_counters(byte_string content)
{
    constexpr uint16_t pmt_pid = 0x1000;
    for (size_t at = 0; at + packet_bytes <= content.size(); at += packet_bytes) {
        const uint16_t pid = static_cast<uint16_t>((content[at + 1] & 0x1F) << 8 | content[at + 2]);
        if (pid == 0 || pid == pmt_pid)
            content[at + 3] &= 0xF0;
    }
    return content;
}

bool is_whole_webvtt(const std::string& text)
{
    return text.starts_with("WEBVTT\n") && text.ends_with("\n\n");
}

} // namespace

std::optional<listed_fragments> parse_media_playlist(const std::string& text)
{
    std::string_view rest = text;
    listed_fragments listed;
    if (!take(rest, "#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:") || !take_number_line(rest))
        return std::nullopt;
    if (take(rest, "#EXT-X-MEDIA-SEQUENCE:")) {
        const auto sequence = take_number_line(rest);
        if (!sequence)
            return std::nullopt;
        listed.first_sequence = *sequence;
    }
    if (!take(rest, "\n"))
        return std::nullopt;

    while (!rest.empty()) {
        if (take(rest, "\n"))
            continue; // an entry without a name
        if (!take(rest, "#EXTINF:"))
            return std::nullopt;
        const auto duration = take_line(rest);
        const auto name = take_line(rest);
        if (!duration || !is_duration(*duration) || !name || name->empty() || !take(rest, "\n"))
            return std::nullopt;
        listed.names.emplace_back(*name);
    }
    return listed;
}

bool is_master_playlist(const std::string& text)
{
    static const std::regex pattern("#EXTM3U\n"
                                    "#EXT-X-VERSION:4\n"
                                    "(#EXT-X-INDEPENDENT-SEGMENTS\n)?"
                                    "(#EXT-X-MEDIA:TYPE=[^\n]+\n)*"
                                    "\n"
                                    "#EXT-X-STREAM-INF:BANDWIDTH=[0-9]+[^\n]*\n"
                                    "[^\n]+\\.m3u8\n"
                                    "\n");
    return std::regex_match(text, pattern);
}

bool is_playlist(const std::string& name)
{
    return name.ends_with(".m3u8");
}

whole_fragments::whole_fragments(const file_map& files)
{
    for (const auto& [name, content] : files) {
        if (name.ends_with(".ts"))
            contents_.insert(without_table_counters(content));
    }
}

bool whole_fragments::contains(const std::string& name, const byte_string& content) const
{
    if (name.ends_with(".vtt"))
        return is_whole_webvtt(text_of(content));
    return contents_.contains(without_table_counters(content));
}

std::string fault_in(const file_map& files, const whole_fragments& whole,
                     const std::set<std::string>& may_be_torn)
{
    for (const auto& [playlist, bytes] : files) {
        if (!is_playlist(playlist) || may_be_torn.contains(playlist))
            continue;
        const std::string text = text_of(bytes);
        if (is_master_playlist(text))
            continue;
        const auto listed = parse_media_playlist(text);
        if (!listed)
            return playlist + " is torn:\n" + text;
        for (const std::string& name : listed->names) {
            const auto fragment = files.find(name);
            if (fragment == files.end())
                return playlist + " lists " + name + ", which is not there";
            if (!whole.contains(name, fragment->second))
                return playlist + " lists " + name + ", which is not whole";
        }
    }
    return {};
}
