// What the publisher reads of its sources: fragments, playlists and subtitles.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "publisher/follow/source_playlist.hpp"
#include "publisher/read/fragment_reader.hpp"
#include "publisher/subtitles/webvtt.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t longest_gop_ticks = 4 * pts_ticks_per_second;

void take_gops(fragment_reader& reader, uint64_t& end)
{
    while (reader.has_gop()) {
        const gop taken = reader.take_gop();
        require(taken.begin >= end && taken.end >= taken.begin);
        require(taken.begin % ts_packet_bytes == 0 && taken.end % ts_packet_bytes == 0);
        require(taken.picture_end >= taken.picture_begin);
        require(taken.picture_end == taken.picture_begin ||
                (taken.picture_begin >= taken.begin && taken.picture_end <= taken.end));
        require(taken.tables.size() % ts_packet_bytes == 0);
        require(taken.start >= 0 && taken.start < pts_modulus);
        require(taken.length > 0 && taken.length < pts_modulus);
        end = taken.end;
    }
}

// A fragment in pieces of any size, so that packets are cut.
void read_fragment(fragment_reader& reader, std::span<const uint8_t> bytes, size_t piece)
{
    reader.begin_fragment();
    uint64_t end = 0;
    std::vector<uint8_t> waiting;
    for (size_t at = 0; at < bytes.size();) {
        const size_t count = std::min(piece, bytes.size() - at);
        waiting.insert(waiting.end(), bytes.data() + at, bytes.data() + at + count);
        at += count;
        const std::vector<uint8_t> exact(waiting); // so that a read past its end shows
        const size_t taken = reader.read(exact);
        require(taken <= exact.size() && exact.size() - taken < ts_packet_bytes);
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(taken));
        take_gops(reader, end);
    }
    reader.end_fragment();
    take_gops(reader, end);
    require(end <= reader.offset());
}

void read_fragments(fuzz_input& input)
{
    const size_t piece = 1 + input.number<uint16_t>();
    const bool learns = (input.number<uint8_t>() & 1) != 0;
    fragment_reader reader(longest_gop_ticks);
    reader.tell_contents();
    const auto whole = input.rest();
    if (learns)
        reader.learn_tables(whole);
    const size_t half = whole.size() / 2 / ts_packet_bytes * ts_packet_bytes;
    read_fragment(reader, whole.first(half), piece);
    read_fragment(reader, whole.subspan(half), piece);
}

void read_playlists(std::string_view text)
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

void read_subtitles(std::string_view text)
{
    const int64_t reference = 900000;
    const auto cues = parse_webvtt(text, reference, reference);
    for (const subtitle_cue& cue : cues)
        require(cue.begin <= cue.end && cue.text.find("\n\n") == std::string::npos);
    const std::string segment =
        webvtt_segment(cues, reference, reference + longest_gop_ticks, reference);
    require(segment.starts_with("WEBVTT\n") && segment.ends_with("\n\n"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    const uint8_t kind = input.number<uint8_t>();
    const auto rest = input.rest();
    const std::string text(rest.begin(), rest.end());
    switch (kind % 3) {
    case 0:
        read_fragments(input);
        break;
    case 1:
        read_playlists(text);
        break;
    default:
        read_subtitles(text);
        break;
    }
    return 0;
}
