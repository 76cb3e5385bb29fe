#include "v2/playlist/m3u8_list.hpp"

#include <cstdio>
#include <memory>
#include <tuple>

#include <unistd.h>

#include "toolkit/owner.hpp"
#include "v2/playlist/master_playlist.hpp"
#include "v2/playlist/media_playlist.hpp"

void m3u8_list::append_entry(const m3u8_entry& entry)
{
    if (!master)
        entries.push_back(entry);
}

void m3u8_list::mark_entries()
{
    if (master)
        return;

    auto entry = entries.rbegin();
    uint64_t listed = 0;
    uint64_t held = 0;
    for (; entry != entries.rend() && listed < list_size; ++entry) {
        if (entry->holdback && held < holdback_max) {
            held++;
        } else {
            entry->holdback = false;
            listed++;
        }
    }
    for (uint64_t kept = 0; entry != entries.rend() && kept < nolist_count; ++entry, kept++)
        entry->nolist = true;
    for (; entry != entries.rend(); ++entry)
        entry->eraseme = true;
}

void m3u8_list::delete_old_fragments()
{
    if (master)
        return;

    while (!entries.empty() && entries.front().eraseme) {
        const std::string& name = entries.front().name;
        if (!name.empty()) {
            std::fprintf(stderr, "Deleting old fragment %s\n", name.c_str());
            std::ignore = unlink(name.c_str()); // already gone is as good
        }
        entries.pop_front();
    }
}

bool m3u8_list::write_m3u8()
{
    const std::string temporary = file_name + ".tmp";
    std::unique_ptr<std::FILE, destroy_with<std::fclose>> out{std::fopen(temporary.c_str(), "w")};
    if (!out)
        return false;

    std::string text = "#EXTM3U\n"
                       "#EXT-X-VERSION:4\n";
    text += master ? master_playlist_body(*this) : media_playlist_body(*this);
    std::ignore = std::fwrite(text.data(), 1, text.size(), out.get()); // the next cut writes anew
    out.reset(); // flushes, so it must precede the rename
    return std::rename(temporary.c_str(), file_name.c_str()) == 0;
}
