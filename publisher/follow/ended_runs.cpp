#include "publisher/follow/ended_runs.hpp"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "publisher/base/descriptor.hpp"
#include "publisher/base/files.hpp"
#include "publisher/follow/source_playlist.hpp"

namespace
{

using runs_by_base = std::map<std::string, std::vector<uint64_t>, std::less<>>;

int64_t end_ms(int directory, const std::string& base, const std::vector<uint64_t>& numbers)
{
    const descriptor last =
        open_file(directory, fragment_file_name({.base = base, .number = numbers.back()}));
    return last ? file_time_ms(last) : 0;
}

// Whether it is the sound that goes with the pictures of a run.
bool is_rendition_of_another(const runs_by_base& runs, const std::string& base)
{
    const std::string lead = std::string(stem_of(base)) + ".v";
    return base != lead && base != stem_of(base) && runs.contains(lead);
}

} // namespace

std::deque<ended_run> find_ended_runs(int directory, const std::string& m3u8_name,
                                      const std::string& base, int64_t written_ms,
                                      const std::string& listed)
{
    runs_by_base runs{{base, {}}};
    bool is_shared = false;
    for (const std::string& name : names_in(directory, ".")) {
        is_shared = is_shared || (name.ends_with(".m3u8") && !name.starts_with(m3u8_name));
        if (auto fragment = parse_fragment_name(name))
            runs[std::move(fragment->base)].push_back(fragment->number);
    }
    for (auto& [name, numbers] : runs)
        std::sort(numbers.begin(), numbers.end());

    std::deque<ended_run> ended{{.base = base, .numbers = std::move(runs[base])}};
    const auto newest = runs.find(listed);
    if (is_shared || written_ms == 0 || newest == runs.end())
        return ended;
    const int64_t listed_ms = end_ms(directory, listed, newest->second);
    std::vector<std::pair<int64_t, std::string>> between;
    for (const auto& [name, numbers] : runs) {
        if (name == base || name == listed || is_rendition_of_another(runs, name))
            continue;
        const int64_t ms = end_ms(directory, name, numbers);
        if (ms > written_ms && ms < listed_ms)
            between.emplace_back(ms, name);
    }
    std::sort(between.begin(), between.end());
    for (const auto& [ms, name] : between)
        ended.push_back({.base = name, .numbers = std::move(runs[name])});
    return ended;
}
