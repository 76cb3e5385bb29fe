#include "v2/hls/hls_output.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/expected_text.hpp"
#include "tests/support/ts_builder.hpp"
#include "tests/support/working_directory.hpp"
#include "v2/demux/pid_map.hpp"

namespace
{

// A transport output named as by default.
void name_output(HLSoutput& output)
{
    output.base_name = "ch1";
    output.m3u8.file_name = "p.m3u8";
    output.m3u8.list_size = 10;
    output.m3u8.nolist_count = 3;
    output.m3u8.target_duration = 4;
}

class HlsOutput : public testing::Test
{
protected:
    void SetUp() override { name_output(output); }

    bool write(const byte_string& bytes) { return output.write(bytes.data(), bytes.size(), pm); }

    void retire(double duration)
    {
        output.frag_duration = duration;
        testing::internal::CaptureStderr();
        output.retire_fragment();
        error = testing::internal::GetCapturedStderr();
    }

    scratch_working_directory here;
    PIDmap pm;
    HLSoutput output;
    std::string error;
};

const byte_string packet = counting_bytes(188);

TEST_F(HlsOutput, NamesFragmentsByTheirNumber)
{
    struct {
        int64_t number;
        std::string suffix;
        std::string want;
    } const cases[] = {
        {0, "", "ch1.00000000.ts"},
        {99999999, "", "ch1.99999999.ts"},
        {123456789, "", "ch1.123456789.ts"},
        {7, ".eng.vtt", "ch1.00000007.ts.eng.vtt"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.want);
        HLSoutput one;
        name_output(one);
        one.next_seq = c.number;
        one.suffix = c.suffix;
        ASSERT_TRUE(one.open_fragment(pm));
        EXPECT_EQ(one.frag_path, c.want);
        EXPECT_EQ(one.opened_seq, c.number);
        EXPECT_EQ(one.cur_seq, c.number);
        EXPECT_EQ(one.next_seq, c.number + 1);
        EXPECT_TRUE(here.files().contains(c.want));
    }
}

TEST_F(HlsOutput, OpensAFragmentForItsFirstPacketAndKeepsItOpen)
{
    EXPECT_TRUE(write(packet));
    EXPECT_TRUE(output.open_fragment(pm));
    EXPECT_TRUE(write(packet));
    EXPECT_EQ(output.frag_bytes, 376u);
    EXPECT_EQ(here.files(), (file_map{{"ch1.00000000.ts", concat({packet, packet})}}));
}

TEST_F(HlsOutput, MakesFragmentsThatOthersMayRead)
{
    const mode_t mask = umask(0);
    ASSERT_TRUE(output.open_fragment(pm));
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat("ch1.00000000.ts", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(HlsOutput, WithoutABaseNameOpensNothingAndSpendsNoNumber)
{
    output.base_name.clear();
    EXPECT_FALSE(output.open_fragment(pm));
    EXPECT_FALSE(write(packet));
    EXPECT_EQ(output.next_seq, 0);
    EXPECT_EQ(output.opened_seq, -1);
    EXPECT_TRUE(here.files().empty());
}

TEST_F(HlsOutput, SpendsTheNumberOfAFragmentThatCannotBeOpened)
{
    here.add({{"ch1.00000000.ts/", {}}});
    EXPECT_FALSE(output.open_fragment(pm));
    EXPECT_EQ(output.next_seq, 1);
    EXPECT_EQ(output.frag_fd, -1);
    EXPECT_TRUE(write(packet));
    EXPECT_EQ(output.frag_path, "ch1.00000001.ts");
}

TEST_F(HlsOutput, ListsARetiredFragment)
{
    EXPECT_TRUE(write(packet));
    retire(6.0);
    EXPECT_EQ(output.frag_fd, -1);
    EXPECT_EQ(output.frag_path, "");
    EXPECT_EQ(output.frag_duration, -1.0);
    EXPECT_EQ(output.cur_seq, 1);
    EXPECT_EQ(output.frag_bytes, 188u) << "kept until the next fragment opens";
    EXPECT_EQ(here.files().at("p.m3u8"),
              media_playlist({.first_sequence = 0, .fragments = {{"6.000", "ch1.00000000.ts"}}}));
    EXPECT_EQ(error, "");
}

TEST_F(HlsOutput, MakesNoEntryWithoutADuration)
{
    for (const double duration : {-1.0, 0.0, -1.0 / 90000}) {
        SCOPED_TRACE(duration);
        EXPECT_TRUE(write(packet));
        const int64_t number = output.cur_seq;
        retire(duration);
        EXPECT_EQ(output.frag_fd, -1);
        EXPECT_EQ(output.cur_seq, number);
        EXPECT_EQ(output.frag_duration, duration);
        EXPECT_EQ(here.files().at("p.m3u8"), media_playlist({}));
    }
}

TEST_F(HlsOutput, MakesAnEntryWithoutNameWhenItWasNeverOpened)
{
    output.cur_seq = 5;
    retire(4.0);
    EXPECT_EQ(output.cur_seq, 6);
    ASSERT_EQ(output.m3u8.entries.size(), 1u);
    EXPECT_EQ(output.m3u8.entries[0].name, "");
    EXPECT_EQ(output.m3u8.entries[0].sequence, 5u);
    EXPECT_EQ(error, nameless_warnings(5, 5, "p.m3u8"));
}

TEST_F(HlsOutput, TrimsAndDeletesAtEveryRetirement)
{
    output.m3u8.list_size = 1;
    output.m3u8.nolist_count = 1;
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(write(packet));
        retire(5.0);
    }
    EXPECT_EQ(error, deletion_line("ch1.00000000.ts"));
    retire(-1.0);
    EXPECT_EQ(error, "") << "nothing was appended, so nothing more goes";
    EXPECT_EQ(
        here.files(),
        (file_map{{"ch1.00000001.ts", packet},
                  {"ch1.00000002.ts", packet},
                  {"p.m3u8", media_playlist({.first_sequence = 2,
                                             .fragments = {{"5.000", "ch1.00000002.ts"}}})}}));
}

TEST_F(HlsOutput, LeavesAnOpenFragmentOnDiskUnlistedAtItsEnd)
{
    {
        HLSoutput one;
        name_output(one);
        EXPECT_TRUE(one.write(packet.data(), packet.size(), pm));
        EXPECT_FALSE(here.files().contains("p.m3u8"));
    }
    EXPECT_EQ(here.files(),
              (file_map{{"ch1.00000000.ts", packet}, {"p.m3u8", media_playlist({})}}));
}

TEST_F(HlsOutput, WritesNothingAtItsEndWhenNoFragmentIsOpen)
{
    {
        HLSoutput one;
        name_output(one);
    }
    EXPECT_TRUE(here.files().empty());
}

} // namespace
