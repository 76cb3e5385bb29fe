#include "publisher/follow/ended_runs.hpp"

#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "publisher/base/descriptor.hpp"
#include "tests/support/scratch_directory.hpp"

namespace
{

class EndedRuns : public testing::Test
{
protected:
    // A file that was written so many seconds after 1970.
    void write(const std::string& name, time_t seconds)
    {
        write_file(scratch_.path() / name, {});
        const timespec times[] = {{.tv_sec = seconds, .tv_nsec = 0},
                                  {.tv_sec = seconds, .tv_nsec = 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, (scratch_.path() / name).c_str(), times, 0), 0);
    }

    // "BASE:NUMBER,NUMBER BASE:": what there is between run a, of which something was written in
    // second 100, and run z.
    [[nodiscard]] std::string found(int64_t written_ms = 100'000)
    {
        const descriptor directory(
            open(scratch_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        std::string text;
        for (const ended_run& run :
             find_ended_runs(directory.get(), "ch1.m3u8", "a", written_ms, "z")) {
            text += (text.empty() ? "" : " ") + run.base;
            for (size_t i = 0; i < run.numbers.size(); i++)
                text += (i == 0 ? ':' : ',') + std::to_string(run.numbers[i]);
        }
        return text;
    }

    scratch_directory scratch_;
};

} // namespace

TEST_F(EndedRuns, AreThoseThatEndedSinceInTheOrderOfTheirEnds)
{
    write("a.00000009.ts", 100);
    write("a.00000010.ts", 101);
    write("before.00000000.ts", 99);
    write("at_once.00000000.ts", 100);
    write("second.00000000.ts", 105);
    write("second.00000001.ts", 130);
    write("first.00000100.ts", 102);
    write("first.00000099.ts", 120);
    write("z.00000000.ts", 140);
    write("z.00000001.ts", 150);
    write("set_clock.00000000.ts", 151);
    EXPECT_EQ(found(), "a:9,10 first:99,100 second:0,1");
    EXPECT_EQ(found(0), "a:9,10") << "it is not known when anything was published";
}

TEST_F(EndedRuns, AreToldByTheirPicturesWhereTheSoundIsApart)
{
    for (const char* rendition : {"v", "a", "sap"})
        write(std::string("b.") + rendition + ".00000000.ts", 120);
    write("radio.a.00000000.ts", 130);
    write("z.00000000.ts", 150);
    EXPECT_EQ(found(), "a b.v:0 radio.a:0");
}

TEST_F(EndedRuns, AreLeftOutWhereAnotherSegmenterMayHaveWrittenThem)
{
    write("b.00000000.ts", 120);
    write("z.00000000.ts", 150);
    write("ch1.m3u8", 150);
    write("ch1.m3u8.av.m3u8", 150);
    EXPECT_EQ(found(), "a b:0");
    write("ch2.m3u8", 10);
    EXPECT_EQ(found(), "a");
}

TEST_F(EndedRuns, AreRegularFilesWithNamesOfFragments)
{
    scratch_.add({{"folder.00000000.ts/", {}}, {"link.00000000.ts@", bytes_of("z.00000000.ts")}});
    for (const char* name : {"b.0000000.ts", ".00000000.ts", "b.00000000.ts.vtt", "b.-0000001.ts",
                             "b.99999999999999999999.ts"})
        write(name, 120);
    write("\x1b[2J b.00000000.ts", 120);
    write("z.00000000.ts", 150);
    EXPECT_EQ(found(), "a \x1b[2J b:0");
    std::filesystem::remove(scratch_.path() / "z.00000000.ts");
    EXPECT_EQ(found(), "a") << "what is listed is not there";
}
