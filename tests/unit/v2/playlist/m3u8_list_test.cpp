#include "v2/playlist/m3u8_list.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/working_directory.hpp"

namespace
{

// Entries numbered from `first`, oldest first; a letter each: 'h' held back, '-' without a name.
m3u8_list list_of(std::string_view entries, uint64_t first = 1)
{
    m3u8_list list;
    list.file_name = "x.m3u8";
    list.target_duration = 6;
    for (const char letter : entries) {
        list.append_entry({.name = letter == '-' ? "" : "f" + std::to_string(first) + ".ts",
                           .sequence = first,
                           .duration = 6.0,
                           .holdback = letter == 'h'});
        first++;
    }
    return list;
}

// Oldest first: E condemned, n not listed, h held back, L listed.
std::string bands(const m3u8_list& list)
{
    std::string out;
    for (const m3u8_entry& entry : list.entries)
        out += entry.eraseme ? 'E' : entry.nolist ? 'n' : entry.holdback ? 'h' : 'L';
    return out;
}

struct mark_case {
    std::string_view name;
    std::string_view entries;
    uint64_t list_size;
    uint64_t nolist_count;
    uint64_t holdback_max;
    std::string_view want;
};

TEST(MarkEntries, SetsTheBands)
{
    const mark_case cases[] = {
        {"empty", "", 3, 2, 0, ""},
        {"fewer than listed", "...", 3, 2, 0, "LLL"},
        {"one more", "....", 3, 2, 0, "nLLL"},
        {"eight entries", "........", 3, 2, 0, "EEEnnLLL"},
        {"nothing listed", "....", 0, 2, 0, "EEnn"},
        {"no band between", "....", 2, 0, 0, "EELL"},
        {"newest held back, three before it listed", ".....h", 3, 2, 1, "nnLLLh"},
        {"no more held back than may be", "...hhh", 3, 1, 1, "EnLLLh"},
        {"holding back is off", "....h", 3, 2, 0, "nnLLL"},
    };
    for (const mark_case& c : cases) {
        SCOPED_TRACE(c.name);
        m3u8_list list = list_of(c.entries);
        list.list_size = c.list_size;
        list.nolist_count = c.nolist_count;
        list.holdback_max = c.holdback_max;
        list.mark_entries();
        EXPECT_EQ(bands(list), c.want);
        list.mark_entries();
        EXPECT_EQ(bands(list), c.want) << "marked again";
    }
}

TEST(MarkEntries, CondemnsNothingBefore1004EntriesAtTheLargestBacklog)
{
    for (const size_t entries : {1003u, 1004u}) {
        m3u8_list list = list_of(std::string(entries, '.'));
        list.list_size = 1000;
        list.nolist_count = 3;
        list.mark_entries();
        EXPECT_EQ(bands(list), std::string(entries - 1003, 'E') + "nnn" + std::string(1000, 'L'));
    }
}

TEST(MarkEntries, NeverClearsAMark)
{
    m3u8_list list = list_of("....");
    list.list_size = 1;
    list.nolist_count = 1;
    list.mark_entries();
    ASSERT_EQ(bands(list), "EEnL");
    list.list_size = 4;
    list.mark_entries();
    EXPECT_EQ(bands(list), "EEnL");
}

TEST(MasterList, TakesNoEntries)
{
    m3u8_list list = list_of("....");
    list.master = true;
    list.list_size = 1;
    list.append_entry({.name = "f.ts", .sequence = 9, .duration = 1.0});
    list.mark_entries();
    EXPECT_EQ(bands(list), "LLLL");
    list.entries.front().eraseme = true;
    list.delete_old_fragments();
    EXPECT_EQ(list.entries.size(), 4u);
}

std::string delete_old(m3u8_list& list)
{
    testing::internal::CaptureStderr();
    list.delete_old_fragments();
    return testing::internal::GetCapturedStderr();
}

TEST(DeleteOldFragments, RemovesCondemnedEntriesWithTheirFiles)
{
    const scratch_working_directory here;
    here.add({{"f1.ts", {1}}, {"f2.ts", {2}}, {"f3.ts", {3}}, {"f4.ts", {4}}});
    m3u8_list list = list_of("....");
    list.list_size = 1;
    list.nolist_count = 1;
    list.mark_entries();
    EXPECT_EQ(delete_old(list), "Deleting old fragment f1.ts\n"
                                "Deleting old fragment f2.ts\n");
    EXPECT_EQ(bands(list), "nL");
    EXPECT_EQ(here.files(), (file_map{{"f3.ts", {3}}, {"f4.ts", {4}}}));
}

TEST(DeleteOldFragments, StopsAtTheFirstEntryThatIsNotCondemned)
{
    m3u8_list list = list_of("...");
    list.entries[1].eraseme = true;
    EXPECT_EQ(delete_old(list), "");
    EXPECT_EQ(list.entries.size(), 3u);
}

TEST(DeleteOldFragments, DropsEntriesWhoseFileIsGoneOrCannotBeRemoved)
{
    const scratch_working_directory here;
    here.add({{"f2.ts/", {}}});
    m3u8_list list = list_of("..");
    list.entries[0].eraseme = list.entries[1].eraseme = true;
    EXPECT_EQ(delete_old(list), "Deleting old fragment f1.ts\n"
                                "Deleting old fragment f2.ts\n");
    EXPECT_TRUE(list.entries.empty());
    EXPECT_TRUE(here.files().contains("f2.ts/"));
}

TEST(DeleteOldFragments, DropsNamelessEntriesInSilence)
{
    m3u8_list list = list_of("-.");
    list.entries[0].eraseme = true;
    EXPECT_EQ(delete_old(list), "");
    EXPECT_EQ(list.entries.size(), 1u);
}

TEST(WriteM3u8, ReplacesTheFileWhole)
{
    const scratch_working_directory here;
    here.add({{"x.m3u8", bytes_of("a longer text that was there before, and then some more of "
                                  "it than the new playlist has")},
              {"x.m3u8.tmp", bytes_of("left by a run that was killed")}});
    EXPECT_TRUE(list_of("").write_m3u8());
    EXPECT_EQ(here.files(), (file_map{{"x.m3u8", bytes_of("#EXTM3U\n"
                                                          "#EXT-X-VERSION:4\n"
                                                          "#EXT-X-TARGETDURATION:6\n"
                                                          "\n")}}));
}

TEST(WriteM3u8, FailsAndLeavesTheOldPlaylistWhenTheTemporaryFileCannotBeOpened)
{
    const scratch_working_directory here;
    here.add({{"x.m3u8", bytes_of("old")}, {"x.m3u8.tmp/", {}}});
    const file_map before = here.files();
    EXPECT_FALSE(list_of(".").write_m3u8());
    EXPECT_EQ(here.files(), before);
}

TEST(WriteM3u8, FailsAndLeavesTheTemporaryFileWhenItCannotTakeTheName)
{
    const scratch_working_directory here;
    here.add({{"x.m3u8/", {}}});
    EXPECT_FALSE(list_of("").write_m3u8());
    EXPECT_TRUE(here.files().contains("x.m3u8.tmp"));
    EXPECT_TRUE(here.files().contains("x.m3u8/"));
}

} // namespace
