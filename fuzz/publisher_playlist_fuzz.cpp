// The playlists that the publisher reads: those of its sources, whose names become names of files,
// and its own, which may have been damaged while it was down.

#include <deque>
#include <string>
#include <string_view>
#include <tuple>

#include "fuzz/fuzz_input.hpp"
#include "publisher/follow/source_playlist.hpp"
#include "publisher/text/date_range.hpp"
#include "publisher/text/iframe_playlist.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/text/presentation.hpp"

namespace
{

void read_source(std::string_view text)
{
    for (const fragment_name& fragment : parse_source_media(text).fragments) {
        const std::string name = fragment_file_name(fragment);
        require(parse_fragment_name(name) == fragment);
        require(name.find('/') == std::string::npos);
    }
    const source_master_playlist master = parse_source_master(text);
    require(master.lead.find('/') == std::string::npos);
    for (const source_subtitles& subtitles : master.subtitles)
        require(!subtitles.language.empty() && subtitles.language.find('/') == std::string::npos);
}

void read_own(std::string_view text)
{
    const media_list list = parse_media_list(text);
    size_t bytes = list.header.size();
    for (const listed_segment& listed : list.segments) {
        require(!listed.uri.empty() && listed.duration >= 0 && listed.text.ends_with('\n'));
        bytes += listed.text.size();
    }
    for (const listed_range& range : list.date_ranges)
        bytes += range.text.size();
    require(bytes <= text.size());
    const auto ranges = parse_date_ranges(list);
    require(ranges.size() <= list.date_ranges.size());
    std::ignore = date_ranges_text(ranges);

    std::deque<segment> segments;
    for (const listed_segment& listed : list.segments)
        segments.push_back({.sequence = list.sequence + segments.size(),
                            .date = listed.date,
                            .files = {{.track = "main"}}});
    take_up_keyframes(list, "main", segments);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(data, data + size);
    read_source(text);
    read_own(text);
    return 0;
}
