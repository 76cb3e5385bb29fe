#include "publisher/publisher.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "publisher/follow/source_playlist.hpp"
#include "tests/support/scratch_directory.hpp"
#include "tests/support/stream_builder.hpp"

namespace
{

// A publisher whose clock the test moves, and a source that completes a fragment of one second
// whenever the test wants.
class Publisher : public testing::Test
{
protected:
    Publisher() : publisher_(settings()) {}

    void SetUp() override
    {
        std::filesystem::create_directory(scratch_.path() / "source");
        ASSERT_EQ(publisher_.start(), start_result::ready);
    }

    publisher_settings settings()
    {
        publisher_settings s;
        s.output = scratch_.path() / "output";
        s.segment = 4;
        rendition_settings rendition;
        rendition.sources = {scratch_.path() / "source"};
        s.renditions = {rendition};
        std::string error;
        EXPECT_TRUE(complete_settings(s, error)) << error;
        return s;
    }

    void complete_fragment()
    {
        stream_builder stream;
        const int64_t pts = 900000 + static_cast<int64_t>(number_) * 90000;
        stream.tables().keyframe(pts);
        for (int i = 1; i < 25; i++)
            stream.picture(pts + i * 3600);
        const std::string name = fragment_file_name({"ch1", number_++});
        write_file(scratch_.path() / "source" / name, stream.bytes());
        list_ += "#EXTINF:1.000,\n" + name + '\n';
        write_file(scratch_.path() / "source/ch1.m3u8", bytes_of(list_));
    }

    // Looks once in each half second, and notes when the list has grown.
    void run_until(int64_t end_ms)
    {
        for (; now_ms_ < end_ms; now_ms_ += 500) {
            publisher_.step(now_ms_);
            const std::string list = read_list();
            if (list != last_list_)
                grown_ms_.push_back(now_ms_);
            last_list_ = list;
        }
    }

    std::string read_list()
    {
        const auto path = scratch_.path() / "output/main.m3u8";
        const byte_string bytes = std::filesystem::exists(path) ? read_file(path) : byte_string{};
        return {bytes.begin(), bytes.end()};
    }

    int64_t longest_wait_ms() const
    {
        int64_t longest = 0;
        for (size_t i = 1; i < grown_ms_.size(); i++)
            longest = std::max(longest, grown_ms_[i] - grown_ms_[i - 1]);
        return longest;
    }

    scratch_directory scratch_;
    publisher publisher_;
    uint64_t number_ = 0;
    std::string list_ = "#EXTM3U\n";
    int64_t now_ms_ = 1000000;
    std::string last_list_;
    std::vector<int64_t> grown_ms_;
};

} // namespace

TEST_F(Publisher, ListsASegmentWithinOneAndAHalfTargetDurations)
{
    for (int i = 0; i < 24; i++) {
        complete_fragment();
        run_until(now_ms_ + 1000);
    }
    EXPECT_GE(grown_ms_.size(), 5u);
    EXPECT_LE(longest_wait_ms(), 6000);
    EXPECT_NE(last_list_.find("#EXTINF:4.00000,\n"), std::string::npos) << last_list_;
}

TEST_F(Publisher, PublishesWhatThereIsWhenTheSourceFallsSilent)
{
    for (int i = 0; i < 6; i++) {
        complete_fragment();
        run_until(now_ms_ + 1000);
    }
    run_until(now_ms_ + 20000);
    EXPECT_LE(longest_wait_ms(), 6000);
    EXPECT_TRUE(last_list_.find("#EXTINF:2.00000,\n") != std::string::npos) << last_list_;
    const size_t lists = grown_ms_.size();
    run_until(now_ms_ + 20000);
    EXPECT_EQ(grown_ms_.size(), lists) << "there is no more";
}

TEST_F(Publisher, IsInTroubleUntilItPublishesAndWhenItsSourceFallsSilent)
{
    EXPECT_NE(publisher_.trouble(now_ms_).find("there is no segment yet"), std::string::npos);
    for (int i = 0; i < 12; i++) {
        complete_fragment();
        run_until(now_ms_ + 1000);
    }
    EXPECT_EQ(publisher_.trouble(now_ms_), "");
    run_until(grown_ms_.back() + 12500);
    EXPECT_EQ(publisher_.trouble(grown_ms_.back() + 12000), "") << "three target durations";
    EXPECT_NE(publisher_.trouble(grown_ms_.back() + 12001).find("no new segment for 12 s"),
              std::string::npos);
    std::filesystem::remove_all(scratch_.path() / "source");
    run_until(now_ms_ + 1000);
    EXPECT_NE(publisher_.trouble(now_ms_).find("there is no directory"), std::string::npos);
    std::filesystem::create_directory(scratch_.path() / "source");
    for (int i = 0; i < 6; i++) {
        complete_fragment();
        run_until(now_ms_ + 1000);
    }
    EXPECT_EQ(publisher_.trouble(now_ms_), "");
}

TEST_F(Publisher, BeginsNumbersAtTheTimeOfDay)
{
    for (int i = 0; i < 8; i++)
        complete_fragment();
    run_until(now_ms_ + 2000);
    const size_t at = last_list_.find("#EXT-X-MEDIA-SEQUENCE:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_GT(std::stoll(last_list_.substr(at + 22)), 1700000000);
}
