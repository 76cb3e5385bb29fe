#include "publisher/compose/output_directory.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/scratch_directory.hpp"

namespace
{

class OutputDirectory : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(output_.open(path("out/deep"), error)) << error;
        std::filesystem::create_directory(path("in"));
    }

    std::string path(const std::string& name) { return scratch_.path() / name; }
    byte_string published(const std::string& name) { return read_file(path("out/deep/" + name)); }

    source_file source(const std::string& name, const byte_string& bytes)
    {
        write_file(path("in/" + name), bytes);
        source_file file;
        file.directory =
            std::make_shared<descriptor>(open(path("in").c_str(), O_RDONLY | O_DIRECTORY));
        file.fd = descriptor(open(path("in/" + name).c_str(), O_RDONLY));
        file.name = name;
        struct stat found {
        };
        fstat(file.fd.get(), &found);
        file.device = found.st_dev;
        file.inode = found.st_ino;
        return file;
    }

    scratch_directory scratch_;
    output_directory output_;
};

} // namespace

TEST_F(OutputDirectory, LinksAWholeFile)
{
    const source_file file = source("a", bytes_of("abcdef"));
    const source_range range{&file, 0, 6};
    const made_file made = output_.make_segment("s.1.ts", {}, {&range, 1});
    EXPECT_EQ(made.how, made_by::link);
    EXPECT_EQ(made.bytes, 6u);
    EXPECT_EQ(std::filesystem::hard_link_count(path("in/a")), 2u);
    EXPECT_EQ(published("s.1.ts"), bytes_of("abcdef"));
}

TEST_F(OutputDirectory, MakesTheFolderInAName)
{
    const source_file file = source("a", bytes_of("abcdef"));
    const source_range whole{&file, 0, 6};
    const source_range part{&file, 0, 3};
    EXPECT_EQ(output_.make_segment("hour/s.1.ts", {}, {&whole, 1}).how, made_by::link);
    EXPECT_EQ(output_.make_segment("hour/s.2.ts", {}, {&part, 1}).how, made_by::copy);
    EXPECT_EQ(output_.make_text("later/s.1.vtt", "x").how, made_by::copy);
    EXPECT_EQ(published("hour/s.2.ts"), bytes_of("abc"));
    EXPECT_FALSE(output_.remove_folder("hour")) << "it has files";
    EXPECT_TRUE(output_.remove("later/s.1.vtt"));
    EXPECT_TRUE(output_.remove_folder("later"));

    // A link there leads elsewhere.
    std::filesystem::create_directory_symlink(path("in"), path("out/deep/other"));
    EXPECT_EQ(output_.make_segment("other/s.1.ts", {}, {&whole, 1}).how, made_by::failure);
    EXPECT_FALSE(std::filesystem::exists(path("in/s.1.ts")));
    EXPECT_TRUE(output_.names("other").empty());
}

TEST_F(OutputDirectory, GivesAFileAnotherName)
{
    EXPECT_EQ(output_.make_text("hour/s.1.vtt", "x").how, made_by::copy);
    EXPECT_TRUE(output_.link_again("hour/s.1.vtt", "hour/s.2.vtt"));
    EXPECT_EQ(published("hour/s.2.vtt"), bytes_of("x"));
    EXPECT_FALSE(output_.link_again("hour/s.1.vtt", "hour/s.2.vtt")) << "something is there";
    EXPECT_FALSE(output_.link_again("hour/s.1.vtt", "later/s.2.vtt")) << "there is no folder";
    EXPECT_EQ(output_.make_text("hour/s.1.vtt", "y").how, made_by::copy);
    EXPECT_EQ(published("hour/s.2.vtt"), bytes_of("x"));
}

TEST_F(OutputDirectory, CopiesPartsBehindTheTables)
{
    const source_file a = source("a", bytes_of("abcdef"));
    const source_file b = source("b", bytes_of("ghij"));
    const std::vector<source_range> ranges = {{&a, 2, 6}, {&b, 0, 3}};
    const made_file made = output_.make_segment("s.1.ts", bytes_of("TT"), ranges);
    EXPECT_EQ(made.how, made_by::copy);
    EXPECT_EQ(made.bytes, 9u);
    EXPECT_EQ(published("s.1.ts"), bytes_of("TTcdefghi"));
}

TEST_F(OutputDirectory, CopiesAFileThatTheSourceHasDeleted)
{
    const source_file file = source("a", bytes_of("abcdef"));
    std::filesystem::remove(path("in/a"));
    const source_range range{&file, 0, 6};
    EXPECT_EQ(output_.make_segment("s.1.ts", {}, {&range, 1}).how, made_by::copy);
    EXPECT_EQ(published("s.1.ts"), bytes_of("abcdef"));
}

TEST_F(OutputDirectory, DoesNotLinkAnotherFileOfTheSameName)
{
    const source_file file = source("a", bytes_of("abcdef"));
    std::filesystem::remove(path("in/a"));
    write_file(path("in/a"), bytes_of("xxxxxx"));
    const source_range range{&file, 0, 6};
    EXPECT_EQ(output_.make_segment("s.1.ts", {}, {&range, 1}).how, made_by::copy);
    EXPECT_EQ(published("s.1.ts"), bytes_of("abcdef"));
    EXPECT_EQ(read_file(path("in/a")), bytes_of("xxxxxx"));
}

TEST_F(OutputDirectory, LeavesNothingOfAFileThatTheSourceCutOff)
{
    const source_file file = source("a", bytes_of("abcdef"));
    std::filesystem::resize_file(path("in/a"), 3);
    const source_range range{&file, 0, 6};
    const made_file made = output_.make_segment("s.1.ts", {}, {&range, 1});
    EXPECT_EQ(made.how, made_by::failure);
    EXPECT_TRUE(made.source_failed);
    EXPECT_EQ(made.error, "s.1.ts: the source no longer has all of it");
    EXPECT_TRUE(files_below(path("out/deep")).empty());
}

TEST_F(OutputDirectory, ReplacesNothingUnlessAllCanBeWritten)
{
    std::string error;
    ASSERT_TRUE(output_.replace_texts({{"a.m3u8", "old a"}, {"b.m3u8", "old b"}}, error));
    // A directory stands where the second would be written.
    std::filesystem::create_directory(path("out/deep/" + unfinished_name("b.m3u8")));
    EXPECT_FALSE(output_.replace_texts({{"a.m3u8", "new a"}, {"b.m3u8", "new b"}}, error));
    EXPECT_NE(error.find("b.m3u8"), std::string::npos);
    EXPECT_EQ(published("a.m3u8"), bytes_of("old a"));
    EXPECT_EQ(published("b.m3u8"), bytes_of("old b"));
}

TEST_F(OutputDirectory, NoticesThatItHasBeenRemoved)
{
    EXPECT_TRUE(output_.is_there());
    std::filesystem::remove(path("out/deep"));
    EXPECT_FALSE(output_.is_there());
    std::filesystem::create_directory(path("out/deep"));
    EXPECT_FALSE(output_.is_there()) << "another one";
    EXPECT_TRUE(output_.remove("never there"));
}
