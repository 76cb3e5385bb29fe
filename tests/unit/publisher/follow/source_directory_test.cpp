#include "publisher/follow/source_directory.hpp"

#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "publisher/base/clock.hpp"
#include "tests/support/scratch_directory.hpp"
#include "tests/support/stream_builder.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t outgrown_ms = 6000;

// A directory that a segmenter without a master playlist writes into: one fragment of a second
// each.
class SourceDirectory : public testing::Test
{
protected:
    SourceDirectory() : source_(scratch_.path(), "ch1.m3u8", 6 * second, outgrown_ms) {}

    static byte_string second_at(int64_t pts, int pictures = 25)
    {
        stream_builder stream;
        stream.tables().keyframe(pts);
        for (int i = 1; i < pictures; i++)
            stream.picture(pts + i * 3600);
        return stream.bytes();
    }

    void write(const std::string& base, uint64_t number, const byte_string& bytes)
    {
        write_file(scratch_.path() / fragment_file_name({base, number}), bytes);
    }

    void write_seconds(const std::string& base, uint64_t first, uint64_t behind, int64_t start)
    {
        for (uint64_t n = first; n < behind; n++)
            write(base, n, second_at(start + static_cast<int64_t>(n) * second));
    }

    // Fragments that were written at that time, in seconds since 1970.
    void write_run(const std::string& base, int64_t start, uint64_t count, time_t written)
    {
        write_seconds(base, 0, count, start * second);
        const timespec times[] = {{.tv_sec = written, .tv_nsec = 0},
                                  {.tv_sec = written, .tv_nsec = 0}};
        for (uint64_t n = 0; n < count; n++) {
            const auto file = scratch_.path() / fragment_file_name({base, n});
            EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
        }
    }

    void list(const std::string& base, uint64_t first, uint64_t behind)
    {
        std::string text = "#EXTM3U\n";
        for (uint64_t n = first; n < behind; n++)
            text += "#EXTINF:1.000,\n" + fragment_file_name({base, n}) + "\n";
        write_file(scratch_.path() / "ch1.m3u8", bytes_of(text));
    }

    // What the segmenter has in hand: open for writing, as long as the descriptor lives.
    [[nodiscard]] descriptor begin_fragment(const std::string& base, uint64_t number,
                                            const byte_string& bytes)
    {
        descriptor fd(open((scratch_.path() / fragment_file_name({base, number})).c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        EXPECT_EQ(::write(fd.get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
        return fd;
    }

    // Start times, in seconds, of the GOPs that are given out.
    std::vector<int64_t> look(int64_t now_ms) { return starts_of(source_, now_ms); }

    std::vector<int64_t> starts_of(source_directory& source, int64_t now_ms)
    {
        source.look(now_ms);
        std::vector<int64_t> starts;
        while (source.has_gop()) {
            last_ = source.take_gop();
            starts.push_back(last_.what.start / second);
            losses_ += last_.after_loss ? 1 : 0;
        }
        return starts;
    }

    std::string told()
    {
        std::string text;
        for (const std::string& line : source_.report.lines)
            text += line.substr(line.find(": ") + 2) + '\n';
        source_.report.lines.clear();
        return text;
    }

    scratch_directory scratch_;
    source_directory source_;
    source_gop last_;
    int losses_ = 0;
};

using seconds = std::vector<int64_t>;

} // namespace

TEST_F(SourceDirectory, GivesWhatIsCompleteAndNoMore)
{
    write_seconds("ch1", 0, 3, 10 * second);
    const descriptor open = begin_fragment("ch1", 3, second_at(13 * second, 1));
    list("ch1", 0, 3);
    EXPECT_EQ(look(0), (seconds{10, 11, 12}));
    EXPECT_EQ(last_.length, second);
    EXPECT_EQ(last_.after.number, 3u);
    EXPECT_EQ(losses_, 1) << "only its beginning";
    EXPECT_TRUE(look(1).empty());
}

// The clock was set back since the file was written, or its time is lost.
TEST_F(SourceDirectory, TakesATimeThatAFileCannotHaveForNow)
{
    for (const time_t time : {time_t{0}, static_cast<time_t>(unix_ms() / 1000 + 3600)}) {
        SCOPED_TRACE(time);
        const std::string base = "run" + std::to_string(time);
        write_run(base, 10, 1, time);
        list(base, 0, 1);
        const int64_t before_ms = unix_ms();
        look(0);
        EXPECT_EQ(look(1000), (seconds{10}));
        EXPECT_GE(last_.arrival_ms, before_ms);
        EXPECT_LE(last_.arrival_ms, unix_ms());
    }
}

TEST_F(SourceDirectory, TakesAFragmentWhenTheNextOneIsThere)
{
    write_seconds("ch1", 0, 2, 10 * second);
    list("ch1", 0, 1);
    const descriptor open = begin_fragment("ch1", 2, second_at(12 * second, 1));
    EXPECT_EQ(look(0), (seconds{10, 11}));
}

TEST_F(SourceDirectory, SalvagesTheLastFragmentOfARunThatDied)
{
    write_seconds("ch1", 0, 2, 10 * second);
    list("ch1", 0, 2);
    {
        byte_string torn = second_at(12 * second, 10);
        torn.resize(torn.size() - 100);
        const descriptor open = begin_fragment("ch1", 2, torn);
        EXPECT_EQ(look(0), (seconds{10, 11}));
    }
    EXPECT_TRUE(look(1000).empty()) << "another one might follow";
    EXPECT_EQ(look(1100), (seconds{12}));
    EXPECT_EQ(last_.length, 9 * 3600);
    EXPECT_EQ(last_.what.end % packet_bytes, 0u);
}

TEST_F(SourceDirectory, LeavesOutThePictureThatAProgramWasKilledIn)
{
    stream_builder stream;
    stream.tables().keyframe(11 * second).picture(11 * second + 3600);
    const size_t last = stream.mark();
    byte_string torn = stream.picture(11 * second + 7200, 500).bytes();
    torn.resize(torn.size() - packet_bytes);
    write_seconds("ch1", 0, 1, 10 * second);
    write("ch1", 1, torn);
    list("ch1", 0, 1);
    EXPECT_EQ(look(0), (seconds{10}));
    EXPECT_EQ(look(1000), (seconds{11}));
    EXPECT_EQ(last_.what.end, last);
    EXPECT_EQ(last_.length, 2 * 3600);
}

TEST_F(SourceDirectory, GoesOnWithTheNextRun)
{
    write_seconds("a", 0, 2, 10 * second);
    list("a", 0, 2);
    EXPECT_EQ(look(0), (seconds{10}));
    write_seconds("b", 0, 2, 50 * second);
    const descriptor open = begin_fragment("b", 2, second_at(52 * second, 1));
    list("b", 0, 2);
    losses_ = 0;
    EXPECT_EQ(look(10), (seconds{11, 50, 51}));
    EXPECT_EQ(losses_, 1);
    EXPECT_EQ(source_.report.runs, 2u);
}

TEST_F(SourceDirectory, GivesWhatEndedRunsHaveLeftAndNothingAgain)
{
    write_run("a", 10, 4, 1000);
    write_run("b", 30, 3, 1010);
    list("b", 0, 3);
    EXPECT_EQ(look(0), (seconds{30, 31}));
    EXPECT_EQ(look(100), (seconds{32})) << "the run that was listed first is the first";
    const source_position position = last_.after;
    write_run("b", 30, 6, 1020);
    for (uint64_t lost = 0; lost < 4; lost++)
        std::filesystem::remove(scratch_.path() / fragment_file_name({"b", lost}));
    write_run("c", 50, 2, 1030);
    write_run("d", 70, 2, 1040);
    write_run("e", 90, 3, 1050);
    list("e", 0, 3);

    source_directory again(scratch_.path(), "ch1.m3u8", 6 * second, outgrown_ms);
    again.resume(position);
    EXPECT_EQ(starts_of(again, 0), (seconds{34, 35, 50, 51, 70, 71, 90, 91}));
    EXPECT_EQ(again.report.lost_fragments, 1u);
    EXPECT_EQ(again.report.runs, 3u);
    EXPECT_EQ(last_.after.base, "e");
}

TEST_F(SourceDirectory, FindsARunThatWasNeverListed)
{
    write_run("a", 10, 2, 1000);
    list("a", 0, 2);
    EXPECT_EQ(look(0), (seconds{10}));
    write_run("b", 30, 1, 1010);
    write_run("c", 50, 2, 1020);
    list("c", 0, 2);
    EXPECT_EQ(look(10), (seconds{11, 30, 50}));
}

TEST_F(SourceDirectory, SaysThatNamesAreUsedAgain)
{
    write_seconds("ch1", 0, 5, 10 * second);
    list("ch1", 0, 5);
    std::ignore = look(0);
    std::ignore = look(200);
    write("ch1", 0, second_at(90 * second));
    write("ch1", 4, second_at(94 * second, 2)); // smaller
    list("ch1", 0, 1);
    EXPECT_TRUE(look(300).empty());
    EXPECT_EQ(told(), "fragments named ch1 are written over by another run; nothing is taken until "
                      "a run has names of its own (--frag-name)\n");
    EXPECT_TRUE(source_.report.names_used_again);
    EXPECT_TRUE(look(400).empty());
    EXPECT_EQ(told(), "") << "once";

    write_seconds("ch2", 0, 2, 100 * second);
    list("ch2", 0, 1);
    EXPECT_EQ(look(500), (seconds{100}));
    EXPECT_FALSE(source_.report.names_used_again);
}

TEST_F(SourceDirectory, SaysThatNamesAreUsedAgainThoughNoFileIsWrittenOverYet)
{
    write_seconds("ch1", 0, 5, 10 * second);
    list("ch1", 3, 5);
    EXPECT_EQ(look(0), (seconds{10, 11, 12, 13}));
    const source_position position = last_.after;
    list("ch1", 0, 1);
    EXPECT_TRUE(look(50).empty());
    EXPECT_TRUE(source_.report.names_used_again);

    source_directory again(scratch_.path(), "ch1.m3u8", 6 * second, outgrown_ms);
    again.resume(position);
    again.look(0);
    EXPECT_TRUE(again.report.names_used_again);
}

// The clock jumped behind the first picture of 3. The run may end there, or 4 may have been closed
// and not be listed yet.
TEST_F(SourceDirectory, TakesFragmentsThatAreNeverListed)
{
    write_seconds("ch1", 0, 5, 10 * second);
    list("ch1", 0, 3);
    EXPECT_EQ(look(0), (seconds{10, 11, 12, 13}));
    EXPECT_EQ(look(100), (seconds{14}));
    EXPECT_TRUE(look(200).empty());
    EXPECT_EQ(told(), "");
    EXPECT_FALSE(source_.report.names_used_again);
}

TEST_F(SourceDirectory, WaitsForAFragmentThatHasJustBeenMade)
{
    write_seconds("ch1", 0, 2, 10 * second);
    write("ch1", 2, {});
    list("ch1", 0, 2);
    EXPECT_EQ(look(0), (seconds{10}));
    const descriptor open = begin_fragment("ch1", 2, second_at(12 * second));
    EXPECT_EQ(look(10), (seconds{11}));
    write_seconds("ch1", 3, 4, 10 * second);
    EXPECT_EQ(look(20), (seconds{12}));
    EXPECT_EQ(losses_, 1) << "only its beginning";
}

TEST_F(SourceDirectory, GoesOnBehindWhatIsPublished)
{
    write_seconds("ch1", 0, 5, 10 * second);
    list("ch1", 0, 5);
    EXPECT_EQ(look(0), (seconds{10, 11, 12, 13}));
    const source_position position = last_.after;

    source_directory again(scratch_.path(), "ch1.m3u8", 6 * second, outgrown_ms);
    again.resume(position);
    again.look(0);
    again.look(100);
    ASSERT_TRUE(again.has_gop());
    const source_gop next = again.take_gop();
    EXPECT_EQ(next.what.start, 14 * second);
    EXPECT_FALSE(next.after_loss);
    EXPECT_EQ(next.what.layout, last_.what.layout);
}

TEST_F(SourceDirectory, WithoutAPositionGoesOnBehindATimeOfTheClock)
{
    write_seconds("ch1", 0, 5, 10 * second);
    list("ch1", 0, 5);
    source_.resume_behind(12 * second);
    EXPECT_EQ(look(0), (seconds{12, 13}));
    EXPECT_EQ(losses_, 0);
}

TEST_F(SourceDirectory, CountsFragmentsThatWereDeletedBeforeTheyWereRead)
{
    write_seconds("ch1", 0, 2, 10 * second);
    list("ch1", 0, 2);
    EXPECT_EQ(look(0), (seconds{10}));
    EXPECT_EQ(look(100), (seconds{11}));
    write_seconds("ch1", 5, 7, 10 * second);
    list("ch1", 5, 7);
    EXPECT_EQ(look(200), (seconds{15}));
    EXPECT_EQ(source_.report.lost_fragments, 3u);
    EXPECT_TRUE(last_.after_loss);
}

TEST_F(SourceDirectory, ReadsAFragmentThatOutgrowsASegmentAsItGrows)
{
    write_seconds("ch1", 0, 1, 10 * second);
    list("ch1", 0, 1);
    stream_builder stream;
    stream.tables();
    for (int64_t s = 11; s < 15; s++)
        stream.keyframe(s * second, 70000).picture(s * second + second / 2);
    const descriptor open = begin_fragment("ch1", 1, stream.bytes());
    EXPECT_EQ(look(0), (seconds{10}));
    EXPECT_TRUE(look(outgrown_ms - 1).empty());
    EXPECT_EQ(look(outgrown_ms), (seconds{11, 12, 13}));
    EXPECT_EQ(last_.after.number, 1u);
    EXPECT_EQ(last_.after.offset, last_.what.end);
}

TEST_F(SourceDirectory, PassesOverFragmentsOfGarbage)
{
    write_seconds("ch1", 0, 4, 10 * second);
    write("ch1", 1, counting_bytes(1000));
    write("ch1", 2, {});
    list("ch1", 0, 4);
    EXPECT_EQ(look(0), (seconds{10}));
    EXPECT_EQ(look(100), (seconds{13}));
    EXPECT_TRUE(last_.after_loss);
    EXPECT_EQ(told(), "ch1.00000001.ts holds nothing that can be published\n");
}

TEST_F(SourceDirectory, WaitsForADirectoryThatIsNotThere)
{
    source_directory missing(scratch_.path() / "later", "ch1.m3u8", 6 * second, outgrown_ms);
    missing.look(0);
    EXPECT_FALSE(missing.report.there);
    EXPECT_GT(missing.look_again_ms(), 0);
}

TEST_F(SourceDirectory, OfASpoolWaitsForTheNextFragmentOnlyWhereThereAreTwins)
{
    source_.be_spool_of("https://b.example/ch1");
    write_seconds("ch1", 0, 2, 10 * second);
    list("ch1", 0, 2);
    EXPECT_EQ(look(0), (seconds{10, 11}));
    EXPECT_EQ(last_.length, second);

    source_directory twin(scratch_.path(), "ch1.m3u8", 6 * second, outgrown_ms);
    twin.be_spool_of("https://b.example/ch1");
    twin.have_twins();
    twin.look(0);
    ASSERT_TRUE(twin.has_gop());
    EXPECT_EQ(twin.take_gop().what.start, 10 * second);
    twin.look(outgrown_ms - 1);
    EXPECT_FALSE(twin.has_gop()) << "whether its end is whole is not known";
    write_seconds("ch1", 2, 3, 10 * second);
    twin.look(outgrown_ms - 1);
    ASSERT_TRUE(twin.has_gop());
    EXPECT_FALSE(twin.take_gop().ends_run);
    twin.look(2 * outgrown_ms - 1);
    ASSERT_TRUE(twin.has_gop()) << "nothing follows";
    EXPECT_TRUE(twin.front().ends_run);
}

TEST_F(SourceDirectory, OfTwinsGivesWhatIsWholeWhenTheNextPictureBegins)
{
    source_.have_twins();
    const auto sound = [](stream_builder& stream, int64_t pts) -> stream_builder& {
        return stream.audio(pts, 500);
    };
    stream_builder stream;
    sound(stream.tables().keyframe(10 * second), 10 * second).picture(10 * second + 3600);
    const size_t second_one = stream.mark();
    sound(stream.tables().keyframe(11 * second), 11 * second);
    const size_t through_sound = stream.mark() - packet_bytes;
    stream.picture(11 * second + 3600);
    const size_t third = stream.mark();
    stream.tables().keyframe(12 * second);

    write("ch1", 0, stream.between(0, second_one));
    list("ch1", 0, 1);
    {
        const descriptor open =
            begin_fragment("ch1", 1, stream.between(second_one, second_one + 3 * packet_bytes));
        EXPECT_EQ(look(0), (seconds{10})) << "its sound is whole";
    }
    byte_string cut = stream.between(second_one, through_sound); // goes through the sound
    append(cut, stream.between(through_sound + packet_bytes, third));
    write("ch1", 1, cut);
    list("ch1", 0, 2);
    byte_string next = stream.from(third);
    const descriptor open = begin_fragment("ch1", 2, next);
    EXPECT_TRUE(look(1).empty()) << "the rest of its sound is lost, or behind the picture";
    EXPECT_LE(source_.look_again_ms(), 5);
    append(next, stream.between(through_sound, through_sound + packet_bytes));
    EXPECT_EQ(pwrite(open.get(), next.data(), next.size(), 0), static_cast<ssize_t>(next.size()));
    EXPECT_EQ(look(2), (seconds{11}));
    EXPECT_EQ(last_.what.continuity_errors, 0u);
}

TEST_F(SourceDirectory, OfASpoolIsToldByItsUrl)
{
    source_.be_spool_of("https://b.example/ch1");
    write("ch1", 0, byte_string(packet_bytes, 0));
    list("ch1", 0, 1);
    EXPECT_TRUE(look(0).empty());
    ASSERT_FALSE(source_.report.lines.empty());
    EXPECT_EQ(source_.report.lines.front(),
              "https://b.example/ch1: ch1.00000000.ts holds nothing that can be published");
}
