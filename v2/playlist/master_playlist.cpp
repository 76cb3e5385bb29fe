#include "v2/playlist/master_playlist.hpp"

#include <cinttypes>

#include "toolkit/text/language_names.hpp"
#include "v2/base/service_tag.hpp"
#include "v2/base/text.hpp"
#include "v2/playlist/rendition_groups.hpp"
#include "v2/playlist/url_escape.hpp"

void m3u8_attr(std::string& out, unsigned& count, std::string_view name, std::string_view value,
               quoting quote)
{
    if (count++ != 0)
        out += ',';
    out.append(name) += '=';
    if (quote == quoting::quoted)
        (out += '"').append(value) += '"';
    else
        out.append(value);
}

namespace
{

constexpr int caption_channels = 4; // CC1 to CC4, announced whatever the stream carries

// One tag with its attribute list under construction.
class tag_line
{
public:
    explicit tag_line(std::string_view tag) : line_(tag) {}

    tag_line& plain(std::string_view name, std::string_view value)
    {
        m3u8_attr(line_, count_, name, value, quoting::plain);
        return *this;
    }

    tag_line& quoted(std::string_view name, std::string_view value)
    {
        m3u8_attr(line_, count_, name, value, quoting::quoted);
        return *this;
    }

    // The name of a rendition group, left out where there is no such group.
    tag_line& group(std::string_view name, const std::string& group)
    {
        return group.empty() ? *this : quoted(name, group);
    }

    [[nodiscard]] std::string line() const { return line_ + "\n"; }

private:
    std::string line_;
    unsigned count_ = 0;
};

tag_line media_tag(std::string_view type)
{
    return tag_line("#EXT-X-MEDIA:").plain("TYPE", type);
}

std::string closed_caption_line(int channel)
{
    const std::string name = format_text("CC%d", channel);
    tag_line tag = media_tag("CLOSED-CAPTIONS");
    tag.group("GROUP-ID", captions_group).quoted("NAME", name).quoted("INSTREAM-ID", name);
    if (channel == 1)
        tag.plain("AUTOSELECT", "YES").plain("DEFAULT", "YES");
    return tag.line();
}

// What viewers read in their menu.
std::string subtitle_name(const std::string& code)
{
    std::string full = vtt_langcode_to_full(code);
    if (full != code)
        return full;
    if (code == "v0")
        return "Primary";
    if (is_service_tag(code))
        return "Secondary " + code.substr(1);
    return code;
}

std::string subtitle_line(const subtitle_rendition& subtitle)
{
    return media_tag("SUBTITLES")
        .group("GROUP-ID", subtitles_group)
        .quoted("NAME", subtitle_name(subtitle.code))
        .quoted("LANGUAGE", subtitle.code)
        .quoted("URI", subtitle.base_url + url_escape(subtitle.playlist_name))
        .line();
}

// The languages are fixed: the stream's own are not looked at.
std::string main_audio_line(const m3u8_list& list)
{
    return media_tag("AUDIO")
        .group("GROUP-ID", audio_group)
        .plain("AUTOSELECT", "YES")
        .plain("DEFAULT", "YES")
        .quoted("LANGUAGE", "eng")
        .quoted("NAME", "Main")
        .quoted("URI", list.base_url + url_escape(list.audio_playlist))
        .line();
}

std::string secondary_audio_line(const m3u8_list& list)
{
    return media_tag("AUDIO")
        .group("GROUP-ID", audio_group)
        .plain("AUTOSELECT", "NO")
        .plain("DEFAULT", "NO")
        .quoted("LANGUAGE", "spa")
        .quoted("NAME", "SAP")
        .quoted("URI", list.base_url + url_escape(list.sap_playlist))
        .line();
}

std::string variant_lines(const m3u8_list& list)
{
    tag_line tag("#EXT-X-STREAM-INF:");
    tag.plain("BANDWIDTH", std::to_string(list.bandwidth))
        .group("CLOSED-CAPTIONS", captions_group)
        .group("SUBTITLES", subtitles_group);
    if (!list.audio_playlist.empty())
        tag.group("AUDIO", audio_group);
    if (list.width != 0 && list.height != 0)
        tag.plain("RESOLUTION", format_text("%" PRIu32 "x%" PRIu32, list.width, list.height));
    return tag.line() + list.base_url + url_escape(list.variant_uri) + "\n";
}

} // namespace

std::string master_playlist_body(const m3u8_list& list)
{
    std::string text;
    const bool audio_is_separate = !list.audio_playlist.empty() || !list.sap_playlist.empty();
    if (!audio_is_separate)
        text += "#EXT-X-INDEPENDENT-SEGMENTS\n";
    if (!captions_group.empty())
        for (int channel = 1; channel <= caption_channels; channel++)
            text += closed_caption_line(channel);
    for (const subtitle_rendition& subtitle : list.subtitles)
        text += subtitle_line(subtitle);
    if (!list.audio_playlist.empty())
        text += main_audio_line(list);
    if (!list.sap_playlist.empty())
        text += secondary_audio_line(list);
    return text + "\n" + variant_lines(list) + "\n";
}
