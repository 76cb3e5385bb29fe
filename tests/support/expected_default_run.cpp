#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr size_t unlisted_band = 3;

// After `finished` fragments: the first one listed, and the first one still on disk.
size_t first_listed(size_t finished, size_t backlog)
{
    return finished > backlog ? finished - backlog : 0;
}

size_t first_kept(size_t finished, size_t backlog)
{
    return first_listed(finished, backlog + unlisted_band);
}

// What the cut that finished fragment `number` reports.
std::string cut_lines(size_t number, size_t backlog)
{
    const size_t finished = number + 1;
    std::string lines;
    if (first_kept(finished, backlog) > first_kept(number, backlog))
        lines += deletion_line(fragment_name(first_kept(number, backlog)));
    // The audio and the secondary-audio rendition, both without packets and without a name.
    const std::string warnings = nameless_warnings(first_listed(finished, backlog), number);
    return lines + warnings + warnings;
}

void add_playlists(file_map& files, const default_run_facts& facts)
{
    const size_t finished = facts.durations.size();
    const size_t first = first_listed(finished, facts.backlog);
    expected_media_playlist named{.target_duration = facts.target_duration};
    for (size_t number = first; number < finished; number++)
        named.fragments.push_back({facts.durations[number], fragment_name(number)});
    if (finished > 0)
        named.first_sequence = first;

    expected_media_playlist unnamed = named;
    unnamed.fragments = nameless(named.fragments.size());
    files["ch1.m3u8.av.m3u8"] = media_playlist(named);
    files[".tmp"] = media_playlist(unnamed);
}

} // namespace

expected_run expected_default_run(const stream_builder& stream, const default_run_facts& facts)
{
    expected_run want;
    want.standard_error = programme_lines(facts.programme);
    for (size_t number = 0; number < facts.durations.size(); number++)
        want.standard_error += cut_lines(number, facts.backlog);
    want.standard_error += "Stream EOF\n";

    want.files["ch1.m3u8"] = master_playlist(facts.master);
    if (facts.starts.empty())
        return want; // nothing was ever cut

    add_playlists(want.files, facts);
    const size_t finished = facts.durations.size();
    for (size_t number = first_kept(finished, facts.backlog); number <= finished; number++) {
        const size_t end = number < finished ? facts.starts[number + 1] : stream.bytes().size();
        want.files[fragment_name(number)] = stream.between(facts.starts[number], end);
    }
    return want;
}
