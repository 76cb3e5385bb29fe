#include "tests/support/expected_text.hpp"

#include <array>
#include <cstdio>

byte_string media_playlist(const expected_media_playlist& playlist)
{
    std::string text = "#EXTM3U\n"
                       "#EXT-X-VERSION:4\n"
                       "#EXT-X-TARGETDURATION:" +
                       std::to_string(playlist.target_duration) + "\n";
    if (playlist.first_sequence)
        text += "#EXT-X-MEDIA-SEQUENCE:" + std::to_string(*playlist.first_sequence) + "\n";
    text += "\n";
    for (const listed_fragment& fragment : playlist.fragments) {
        if (!fragment.uri.empty())
            text += "#EXTINF:" + fragment.duration + ",\n" + fragment.uri + "\n";
        text += "\n";
    }
    return bytes_of(text);
}

byte_string master_playlist(const expected_master_playlist& playlist)
{
    std::string text =
        "#EXTM3U\n"
        "#EXT-X-VERSION:4\n"
        "#EXT-X-INDEPENDENT-SEGMENTS\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC1\",INSTREAM-ID=\"CC1\",AUTOSELECT=YES,DEFAULT=YES\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC2\",INSTREAM-ID=\"CC2\"\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC3\",INSTREAM-ID=\"CC3\"\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC4\",INSTREAM-ID=\"CC4\"\n"
        "\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=" +
        std::to_string(playlist.bandwidth) + ",CLOSED-CAPTIONS=\"caps\"";
    if (!playlist.resolution.empty())
        text += ",RESOLUTION=" + playlist.resolution;
    text += "\n" + playlist.variant + "\n\n";
    return bytes_of(text);
}

std::string fragment_name(uint64_t number, const std::string& base)
{
    std::string digits = std::to_string(number);
    if (digits.size() < 8)
        digits.insert(0, 8 - digits.size(), '0');
    return base + "." + digits + ".ts";
}

std::vector<listed_fragment> nameless(size_t count)
{
    return std::vector<listed_fragment>(count);
}

std::string programme_lines(const expected_programme& programme)
{
    return "PAT: Locking onto Program " + hex4(programme.number) + "h PMT " +
           hex4(programme.pmt_pid) + "h\n" +                         //
           "Got PAT. Chose PMT=" + hex4(programme.pmt_pid) + "h\n" + //
           "Got PMT. Chose audio=" + hex4(programme.audio_pid) +
           "h video=" + hex4(programme.video_pid) + "h.\n";
}

std::string nameless_warnings(uint64_t first, uint64_t last, const std::string& file)
{
    std::string text;
    for (uint64_t number = first; number <= last; number++)
        text += "M3U8 warning: Fragment name is missing for segment " + std::to_string(number) +
                " '" + file + "' (FIX THIS BUG)\n";
    return text;
}

std::string deletion_line(const std::string& file)
{
    return "Deleting old fragment " + file + "\n";
}

std::string hex4(unsigned value)
{
    std::array<char, 9> digits{};
    std::snprintf(digits.data(), digits.size(), "%04x", value);
    return digits.data();
}
