#include "v2/captions/webvtt_text.hpp"

#include "toolkit/pts_clock.hpp"
#include "v2/base/assertion.hpp"
#include "v2/base/service_tag.hpp"
#include "v2/base/text.hpp"

namespace
{

// A header is small: no language that the caption intake lets through is longer than a file name.
constexpr size_t header_bytes_max = 8192;

// h:mm:ss.mmm
std::string clock_text(int64_t milliseconds)
{
    const auto ms = static_cast<long long>(milliseconds);
    return format_text("%lld:%02lld:%02lld.%03lld", ms / 1000 / 60 / 60, ms / 1000 / 60 % 60,
                       ms / 1000 % 60, ms % 1000);
}

std::string kind_and_language(const std::string& key)
{
    std::string text = "Kind: captions\n";
    if (!is_service_tag(key))
        text += "Language: " + key + "\n";
    return text + "\n";
}

// The text's lines, each ended by a line feed. A line break that ends the text begins no line.
std::string text_lines(const std::string& text)
{
    std::string lines;
    const char* const end = text.data() + text.size();
    for (const char* s = text.data(); s < end;) {
        const char* b = s;
        while (s < end && *s != '\r' && *s != '\n')
            s++;

        if (s == b) {
            lines += ' ';
        } else {
            ASSERT_INVARIANT(s > b, __PRETTY_FUNCTION__);
            lines.append(b, s);
        }
        lines += '\n';

        if (end - s >= 2 && s[0] == '\r' && s[1] == '\n')
            s += 2;
        else if (s < end)
            s++;
    }
    return lines;
}

} // namespace

std::string webvtt_header(const std::string& key, int64_t origin)
{
    std::string header = "WEBVTT\n";
    header += format_text("X-TIMESTAMP-MAP=MPEGTS:%lld,LOCAL:", static_cast<long long>(origin));
    header += clock_text(origin / pts_ticks_per_millisecond) + "\n";
    header += kind_and_language(key);

    const size_t w = header.size();
    const size_t f = header_bytes_max;
    ASSERT_INVARIANT(w < f, __PRETTY_FUNCTION__);
    return header;
}

std::string webvtt_empty_body(const std::string& key)
{
    return "WEBVTT\n" + kind_and_language(key);
}

std::string webvtt_cue_block(int64_t start, int64_t end, const std::string& cue_settings,
                             const std::string& text)
{
    std::string block = clock_text(start) + " --> " + clock_text(end);
    if (!cue_settings.empty())
        block += " " + cue_settings;
    return block + "\n" + text_lines(text) + "\n";
}
