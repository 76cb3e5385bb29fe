// The check of a presentation finds what it is there for.

#include <gtest/gtest.h>

#include "tests/faults/presentation.hpp"
#include "tests/support/packetiser.hpp"

namespace
{

const std::string playlist = "#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:4\n"
                             "#EXT-X-MEDIA-SEQUENCE:3\n\n"
                             "#EXTINF:5.000,\nch1.00000003.ts\n\n";

const byte_string fragment(2 * packet_bytes, 0x47);

std::string fault_with(const std::string& text, const file_map& fragments)
{
    file_map files = fragments;
    files["ch1.m3u8"] = bytes_of(text);
    return fault_in(files, whole_fragments({{"ch1.00000003.ts", fragment}}));
}

TEST(Presentation, AWholeOneHasNoFault)
{
    EXPECT_EQ(fault_with(playlist, {{"ch1.00000003.ts", fragment}}), "");
}

TEST(Presentation, EveryTornPlaylistIsFound)
{
    // At the end of a line between two entries a playlist could as well be whole.
    const std::string header = playlist.substr(0, playlist.find("#EXTINF"));
    for (size_t length = 0; length < playlist.size(); length++) {
        if (length == header.size())
            continue;
        EXPECT_NE(fault_with(playlist.substr(0, length), {{"ch1.00000003.ts", fragment}}), "")
            << length;
    }
}

TEST(Presentation, AMissingFragmentIsFound)
{
    EXPECT_EQ(fault_with(playlist, {}), "ch1.m3u8 lists ch1.00000003.ts, which is not there");
}

TEST(Presentation, AFragmentCutShortIsFound)
{
    const byte_string cut_short(fragment.begin(), fragment.end() - packet_bytes);
    EXPECT_EQ(fault_with(playlist, {{"ch1.00000003.ts", cut_short}}),
              "ch1.m3u8 lists ch1.00000003.ts, which is not whole");
}

} // namespace
