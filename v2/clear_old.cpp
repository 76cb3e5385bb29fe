#include "v2/clear_old.hpp"

#include <cctype>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "toolkit/owner.hpp"

namespace
{

using directory_ptr = std::unique_ptr<DIR, destroy_with<closedir>>;

bool skip_prefix(std::string_view& text, std::string_view prefix)
{
    if (!text.starts_with(prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

template <typename Predicate>
void skip_run(std::string_view& text, Predicate is_member)
{
    while (!text.empty() && is_member(text.front()))
        text.remove_prefix(1);
}

bool is_digit(char c)
{
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

bool is_language_character(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-';
}

// What subtitles have after the name of the rendition they belong to: "." with the language, and
// the ending. All else ends there.
bool is_empty_or_language_tail(std::string_view rest, std::string_view ending)
{
    if (rest.empty())
        return true;
    if (!skip_prefix(rest, "."))
        return false;
    skip_run(rest, is_language_character);
    return rest == ending;
}

// What follows the playlist name: the rendition's suffix, and for subtitles the language.
bool is_playlist_tail(std::string_view rest)
{
    if (!skip_prefix(rest, ".sap.m3u8") && !skip_prefix(rest, ".av.m3u8") &&
        !skip_prefix(rest, ".v.m3u8") && !skip_prefix(rest, ".a.m3u8"))
        return false;
    return is_empty_or_language_tail(rest, ".vtt.m3u8");
}

// What follows the fragment name: "." with the rendition's tag, the number and ".ts", and for
// subtitles the language. The number may be empty.
bool is_fragment_tail(std::string_view rest)
{
    if (!skip_prefix(rest, "."))
        return false;
    for (const std::string_view tag : {"v.", "a.", "av.", "sap."})
        if (skip_prefix(rest, tag))
            break;
    skip_run(rest, is_digit);
    return skip_prefix(rest, ".ts") && is_empty_or_language_tail(rest, ".vtt");
}

// Passes over anything but a regular file. False if the unlink failed.
bool remove_regular_file(const std::string& path)
{
    struct stat status {
    };
    if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return true;
    std::fprintf(stderr, "Removing old: %s\n", path.c_str());
    return unlink(path.c_str()) == 0;
}

// Removes the files beside `name` whose own names are its base followed by a tail of the pattern.
bool clear_beside(const std::string& name, bool (*is_tail)(std::string_view))
{
    const size_t slash = name.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : name.substr(0, slash);
    const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    if (directory.empty() || base.empty())
        return true;

    std::fprintf(stderr, "Removing old: scanning directory %s for %s\n", directory.c_str(),
                 base.c_str());
    const directory_ptr entries{opendir(directory.c_str())};
    if (!entries)
        return true;
    while (const dirent* entry = readdir(entries.get())) {
        std::string_view rest = entry->d_name;
        if (rest.starts_with('.') || !skip_prefix(rest, base) || !is_tail(rest))
            continue;
        if (!remove_regular_file(directory + "/" + entry->d_name))
            return false;
    }
    return true;
}

} // namespace

bool clear_old_output(const cmdopts& opts)
{
    return remove_regular_file(opts.m3u8_name) && clear_beside(opts.m3u8_name, is_playlist_tail) &&
           clear_beside(opts.frag_name, is_fragment_tail);
}
