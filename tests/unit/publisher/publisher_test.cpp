#include "publisher/publisher.hpp"

#include <algorithm>
#include <csignal>
#include <memory>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include "publisher/base/clock.hpp"
#include "publisher/base/files.hpp"
#include "publisher/follow/source_playlist.hpp"
#include "publisher/text/media_list.hpp"
#include "tests/support/scratch_directory.hpp"
#include "tests/support/scripted_server.hpp"
#include "tests/support/stream_builder.hpp"
#include "tests/support/whole_playlist.hpp"

namespace
{

// A publisher whose clock the test moves, and a source that completes a fragment of one second
// whenever the test wants.
class Publisher : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directory(scratch_.path() / "source");
        start_publisher();
    }

    // Another process, which goes by the real clock of the boot when it starts.
    void start_publisher() { start_publisher(settings()); }
    void start_publisher(const publisher_settings& s)
    {
        publisher_.reset();
        publisher_ = std::make_unique<publisher>(s);
        ASSERT_EQ(publisher_->start(), start_result::ready);
    }

    void start_again()
    {
        start_publisher();
        now_ms_ = boot_ms();
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
        write_file(scratch_.path() / "source" / (languages_.empty() ? "ch1.m3u8" : "lead.m3u8"),
                   bytes_of(list_));
        if (!languages_.empty())
            write_subtitles(name, pts);
    }

    // Each fragment brings `cues_` of them.
    void write_subtitles(const std::string& fragment, int64_t pts)
    {
        std::string text =
            "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:" + std::to_string(pts) + ",LOCAL:00:00:00.000\n\n";
        for (int i = 0; i < cues_; i++)
            text += "00:00:00.100 --> " + cue_end_ + '\n' + fragment + std::string(1000, 'x') +
                    std::to_string(i) + "\n\n";
        std::string master = "#EXTM3U\n";
        for (const std::string& language : languages_) {
            master += "#EXT-X-MEDIA:TYPE=SUBTITLES,LANGUAGE=\"" + language + "\"\n";
            const std::string file = subtitle_file_name(fragment, language);
            if (is_file_name(file))
                write_file(scratch_.path() / "source" / file, bytes_of(text));
        }
        master += "#EXT-X-STREAM-INF:BANDWIDTH=1\nlead.m3u8\n";
        write_file(scratch_.path() / "source/ch1.m3u8", bytes_of(master));
    }

    size_t count_of_names(std::string_view begin, std::string_view end)
    {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(scratch_.path() / "output")) {
            const std::string name = entry.path().filename();
            count += name.starts_with(begin) && name.ends_with(end) ? 1 : 0;
        }
        return count;
    }

    // Looks once in each half second, and notes when the list has grown.
    void run_until(int64_t end_ms)
    {
        for (; now_ms_ < end_ms; now_ms_ += 500) {
            publisher_->step(now_ms_);
            const std::string list = read_list();
            if (list != last_list_)
                grown_ms_.push_back(now_ms_);
            last_list_ = list;
        }
    }

    std::string read_list(const char* name = "main.m3u8")
    {
        const auto path = scratch_.path() / "output" / name;
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

    // A second of the source in each.
    void publish_seconds(int count)
    {
        for (int i = 0; i < count; i++) {
            complete_fragment();
            run_until(now_ms_ + 1000);
        }
    }

    // Gives the name of the segment.
    std::string publish_until_one_leaves()
    {
        publish_seconds(80);
        const std::string left = first_segment(last_list_);
        publish_seconds(4);
        EXPECT_NE(left, first_segment(last_list_));
        return left;
    }

    // Nothing can be written under the name of the unfinished list.
    void block_lists()
    {
        std::filesystem::create_directory(scratch_.path() / "output/.unfinished.main.m3u8");
    }
    void unblock_lists()
    {
        std::filesystem::remove(scratch_.path() / "output/.unfinished.main.m3u8");
    }

    void lose_state()
    {
        publisher_.reset();
        for (const char* suffix : {"", "-wal", "-shm"})
            std::filesystem::remove(scratch_.path() /
                                    ("output/.index.m3u8.sqlite3" + std::string(suffix)));
    }

    bool is_there(const std::string& name)
    {
        return std::filesystem::exists(scratch_.path() / "output" / name);
    }

    std::filesystem::path newest_path()
    {
        const std::string name = last_list_.substr(last_list_.rfind("main."));
        return scratch_.path() / "output" / name.substr(0, name.find('\n'));
    }

    static std::string first_segment(const std::string& list)
    {
        const size_t at = list.find("\nmain.") + 1;
        return list.substr(at, list.find('\n', at) - at);
    }

    scratch_directory scratch_;
    std::unique_ptr<publisher> publisher_;
    uint64_t number_ = 0;
    std::string list_ = "#EXTM3U\n";
    std::vector<std::string> languages_; // of subtitles
    int cues_ = 1;
    std::string cue_end_ = "9999:00:00.000";
    int64_t now_ms_ = 1000000;
    std::string last_list_;
    std::vector<int64_t> grown_ms_;
};

// One that numbers by the time of the stream, as another one does.
class PublisherWithAPeer : public Publisher
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directory(scratch_.path() / "source");
        answer("main.m3u8", "404 Not Found", "");
        start_publisher(with_peer());
    }

    // What it is asked at once comes over two connections, and the server knows one at a time.
    void answer(const std::string& name, const std::string& status, const std::string& body)
    {
        server_.set("/ch1/" + name,
                    "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body,
                    scripted_server::then::close);
    }

    publisher_settings with_peer()
    {
        publisher_settings s = settings();
        s.numbers = numbering::stream;
        s.target_duration = 6;
        s.peers = {server_.url() + "/ch1"};
        return s;
    }

    void publish_seconds_of(int count, std::filesystem::file_time_type time)
    {
        for (int i = 0; i < count; i++) {
            complete_fragment();
            for (const auto& entry :
                 std::filesystem::directory_iterator(scratch_.path() / "source"))
                std::filesystem::last_write_time(entry.path(), time);
            run_until(now_ms_ + 1000);
        }
    }

    // What the peer is asked by another start.
    size_t requests_of_start()
    {
        const size_t before = server_.requests().size();
        start_publisher(with_peer());
        return server_.requests().size() - before;
    }

    // The source stands where the discontinuity is.
    void let_peer_list(uint64_t first, uint64_t last, uint64_t discontinuity = 0)
    {
        presentation p;
        p.target_duration = 6;
        for (uint64_t number = first; number <= last; number++)
            p.listed.push_back({.sequence = number,
                                .discontinuity_number = number < discontinuity ? 0u : 1u,
                                .discontinuity = number == discontinuity,
                                .duration = 4 * pts_ticks_per_second,
                                .files = {{.track = "main", .bytes = 1000}}});
        answer("main.m3u8", "200 OK", whole_media_playlist(p, "main"));
        stream_builder stream;
        stream.tables().keyframe(900000 + static_cast<int64_t>(number_) * 90000);
        answer("main." + std::to_string(discontinuity) + ".ts", "200 OK",
               std::string(stream.bytes().begin(), stream.bytes().end()));
    }

    // The first number and the last.
    std::pair<uint64_t, uint64_t> listed()
    {
        const media_list list = parse_media_list(read_list());
        return {list.sequence, list.sequence + list.segments.size() - 1};
    }

    void look_at_peer()
    {
        now_ms_ += 6000;
        publisher_->step(now_ms_);
        do {
            pollfd fetched{.fd = publisher_->fetch_fd(), .events = POLLIN, .revents = 0};
            poll(&fetched, 1, static_cast<int>(publisher_->fetch_wait_ms()));
        } while (!publisher_->fetch());
        publisher_->step(now_ms_);
    }

    scripted_server server_;
};

// For as long as it lives.
class resource_limit
{
public:
    resource_limit(__rlimit_resource what, rlim_t most) : what_(what)
    {
        EXPECT_EQ(getrlimit(what_, &usual_), 0);
        rlimit less = usual_;
        less.rlim_cur = most;
        EXPECT_EQ(setrlimit(what_, &less), 0);
    }
    ~resource_limit() { EXPECT_EQ(setrlimit(what_, &usual_), 0); }
    resource_limit(const resource_limit&) = delete;
    resource_limit& operator=(const resource_limit&) = delete;

private:
    __rlimit_resource what_;
    rlimit usual_{};
};

} // namespace

TEST_F(Publisher, ListsASegmentWithinOneAndAHalfTargetDurations)
{
    publish_seconds(24);
    EXPECT_GE(grown_ms_.size(), 5u);
    EXPECT_LE(longest_wait_ms(), 6000);
    EXPECT_NE(last_list_.find("#EXTINF:4.00000,\n"), std::string::npos) << last_list_;
}

TEST_F(Publisher, PublishesWhatThereIsWhenTheSourceFallsSilent)
{
    publish_seconds(6);
    run_until(now_ms_ + 20000);
    EXPECT_LE(longest_wait_ms(), 6000);
    EXPECT_TRUE(last_list_.find("#EXTINF:2.00000,\n") != std::string::npos) << last_list_;
    const size_t lists = grown_ms_.size();
    run_until(now_ms_ + 20000);
    EXPECT_EQ(grown_ms_.size(), lists) << "there is no more";
}

TEST_F(Publisher, IsInTroubleUntilItPublishesAndWhenItsSourceFallsSilent)
{
    EXPECT_NE(publisher_->trouble(now_ms_).find("there is no segment yet"), std::string::npos);
    publish_seconds(12);
    EXPECT_EQ(publisher_->trouble(now_ms_), "");
    run_until(grown_ms_.back() + 12500);
    EXPECT_EQ(publisher_->trouble(grown_ms_.back() + 12000), "") << "three target durations";
    EXPECT_NE(publisher_->trouble(grown_ms_.back() + 12001).find("no new segment for 12 s"),
              std::string::npos);
    std::filesystem::remove_all(scratch_.path() / "source");
    run_until(now_ms_ + 1000);
    EXPECT_NE(publisher_->trouble(now_ms_).find("there is no directory"), std::string::npos);
    std::filesystem::create_directory(scratch_.path() / "source");
    publish_seconds(6);
    EXPECT_EQ(publisher_->trouble(now_ms_), "");
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

TEST_F(Publisher, PublishesWhatThereIsWhenTheSourceWasSilentBeforeAStart)
{
    publish_seconds(5);
    start_again();
    EXPECT_EQ(last_list_.find("#EXTINF:1.00000,\n"), std::string::npos) << last_list_;
    run_until(now_ms_ + 6500);
    EXPECT_NE(last_list_.find("#EXTINF:1.00000,\n"), std::string::npos) << last_list_;
}

TEST_F(Publisher, PublishesTheLittleThatASourceDelivers)
{
    publish_seconds(2);
    run_until(now_ms_ + 6500);
    EXPECT_NE(last_list_.find("#EXTINF:2.00000,\n"), std::string::npos) << last_list_;
}

TEST_F(Publisher, PublishesWhatTheSourceHasBeforeItEnds)
{
    publish_seconds(6);
    start_again();
    EXPECT_TRUE(publisher_->end(boot_ms()));
    const std::string list = read_list();
    EXPECT_NE(list.find("#EXTINF:4.00000,\n"), std::string::npos) << list;
    EXPECT_NE(list.find("#EXTINF:2.00000,\n"), std::string::npos) << list;
    EXPECT_TRUE(list.ends_with("#EXT-X-ENDLIST\n")) << list;
}

// Killed when the step was saved, and away for longer than the segment would have stayed.
TEST_F(Publisher, KeepsWhatTheListOnDiskNamedWhileItWasAway)
{
    publish_seconds(80);
    const std::string before = last_list_;
    publish_seconds(4);
    ASSERT_NE(first_segment(before), first_segment(last_list_));
    publisher_.reset();
    write_file(scratch_.path() / "output/main.m3u8", bytes_of(before));
    start_again();
    run_until(now_ms_ + 60000);
    EXPECT_TRUE(is_there(first_segment(before)));
    run_until(now_ms_ + 10000);
    EXPECT_FALSE(is_there(first_segment(before)));
}

// Killed before anything says since when.
TEST_F(Publisher, KeepsWhatListsNamedThatCouldNotBeWrittenOverAStart)
{
    publish_seconds(80);
    const std::string first = first_segment(last_list_);
    block_lists();
    publish_seconds(100);
    unblock_lists();
    publish_seconds(1);
    ASSERT_NE(first_segment(last_list_), first);
    start_again();
    run_until(now_ms_ + 60000);
    EXPECT_TRUE(is_there(first));
    run_until(now_ms_ + 6000);
    EXPECT_FALSE(is_there(first));
}

TEST_F(Publisher, RemovesWhatNoListNamesWhileListsCannotBeWritten)
{
    const std::string left = publish_until_one_leaves();
    const std::string first = first_segment(last_list_);
    block_lists();
    publish_seconds(100);
    EXPECT_FALSE(is_there(left)) << "it takes room that may be short";
    EXPECT_TRUE(is_there(first)) << "the list on disk names it";
}

TEST_F(Publisher, KeepsFilesForAShorterTimeWhenListsAreShorter)
{
    publish_seconds(80);
    publisher_settings shorter = settings();
    shorter.window = 12;
    publisher_->change(shorter);
    publish_seconds(8);
    const std::string long_listed = first_segment(last_list_);
    publish_seconds(60);
    EXPECT_TRUE(is_there(long_listed)) << "a list of 60 s had it";
    publish_seconds(12);
    EXPECT_FALSE(is_there(long_listed));
    const std::string listed = first_segment(last_list_);
    publish_seconds(4);
    ASSERT_NE(first_segment(last_list_), listed);
    publish_seconds(12);
    EXPECT_TRUE(is_there(listed));
    publish_seconds(6);
    EXPECT_FALSE(is_there(listed)) << "no list of more than 12 s had it";
}

TEST_F(Publisher, KeepsWhatLeftTheListBeforeTheStateWasLost)
{
    const std::string left = publish_until_one_leaves();
    lose_state();
    start_again();
    run_until(now_ms_ + 60000);
    EXPECT_TRUE(is_there(left));
    run_until(now_ms_ + 6000);
    EXPECT_FALSE(is_there(left));
}

TEST_F(Publisher, KeepsWhatLeftTheListBeforeTheStateWasLostOverMoreStarts)
{
    const std::string left = publish_until_one_leaves();
    lose_state();
    start_again();
    publish_seconds(5);
    start_again();
    run_until(now_ms_ + 50000);
    EXPECT_TRUE(is_there(left));
}

// As after a power cut, which leaves the newest files without their bytes.
TEST_F(Publisher, GoesOnBehindASegmentWithoutBytesWhenTheStateWasLostToo)
{
    publish_seconds(20);
    const std::string list = last_list_;
    ASSERT_TRUE(std::filesystem::remove(newest_path())); // its bytes are those of the source
    write_file(newest_path(), {});
    lose_state();
    start_again();
    run_until(now_ms_ + 1000);
    const size_t entries = list.find("#EXT-X-MEDIA-SEQUENCE");
    EXPECT_TRUE(read_list().ends_with(list.substr(entries))) << "nothing comes twice";
    EXPECT_EQ(std::filesystem::file_size(newest_path()), 2u * 188) << "tables alone";
    EXPECT_NE(read_list("index.m3u8").find("\nmain.m3u8\n"), std::string::npos);
}

TEST_F(Publisher, KeepsTheListWhereAPowerCutHasTornTheNewestSegment)
{
    publish_seconds(20);
    const std::string list = last_list_;
    for (const int left : {1000, 0}) {
        publisher_.reset();
        const byte_string whole = read_file(newest_path());
        ASSERT_TRUE(std::filesystem::remove(newest_path()));
        write_file(newest_path(), byte_string(whole.begin(), whole.begin() + left));
        start_again();
        run_until(now_ms_ + 1000);
        EXPECT_EQ(read_list(), list);
        EXPECT_EQ(std::filesystem::file_size(newest_path()), whole.size());
    }
}

TEST_F(Publisher, BeginsTheListBehindAnOldSegmentThatIsGone)
{
    publisher_settings s = settings();
    s.window = 100;
    start_publisher(s);
    publish_seconds(90);
    const std::string list = last_list_;
    publisher_.reset();
    ASSERT_TRUE(std::filesystem::remove(scratch_.path() / "output" / first_segment(list)));
    start_publisher(s);
    now_ms_ = boot_ms();
    run_until(now_ms_ + 1000);
    EXPECT_EQ(read_list().find(first_segment(list)), std::string::npos);
    EXPECT_TRUE(list.ends_with(read_list().substr(read_list().rfind("#EXT-X-PROGRAM"))));
}

TEST_F(Publisher, TakesOnlySoManyLanguagesFromASource)
{
    for (int i = 0; i < 60; i++) {
        languages_ = {"l" + std::to_string(i)};
        publish_seconds(1);
    }
    EXPECT_EQ(count_of_names("main.sub-", ".m3u8"), 32u);
}

TEST_F(Publisher, IsNotStoppedByALanguageThatFitsIntoNoName)
{
    languages_ = {"eng", std::string(90, '!')};
    publish_seconds(8);
    EXPECT_EQ(publisher_->trouble(now_ms_), "");
    EXPECT_EQ(count_of_names("main.sub-", ".m3u8"), 1u);
}

// A list of a day has very many.
TEST_F(Publisher, GivesEarlierSegmentsOneEmptyFileOfANewLanguage)
{
    languages_ = {"eng"};
    publish_seconds(40);
    languages_ = {"eng", "spa"};
    publish_seconds(5);
    const media_list list = parse_media_list(read_list("main.sub-spa.m3u8"));
    ASSERT_GT(list.segments.size(), 8u);
    const auto file = scratch_.path() / "output" / list.segments[0].uri;
    EXPECT_EQ(read_file(file), bytes_of("WEBVTT\n\n"));
    EXPECT_EQ(std::filesystem::hard_link_count(file), list.segments.size() - 1);
    EXPECT_GT(read_file(scratch_.path() / "output" / list.segments.back().uri).size(), 100u);
}

TEST_F(Publisher, RepeatsNoMoreThanSomeOfTheCuesThatNeverEnd)
{
    languages_ = {"eng"};
    cues_ = 100;
    publish_seconds(40);
    size_t largest = 0;
    for (const auto& entry : std::filesystem::directory_iterator(scratch_.path() / "output")) {
        if (entry.path().extension() == ".vtt")
            largest = std::max<size_t>(largest, entry.file_size());
    }
    EXPECT_GT(largest, size_t{400} << 10) << "those of its own, and of some before";
    EXPECT_LT(largest, size_t{800} << 10);
}

// As after an hour without room on the disk: each fragment that waits keeps a file open.
TEST_F(Publisher, PublishesALongBacklogWithAFewOpenFiles)
{
    const resource_limit few(RLIMIT_NOFILE, 256);
    for (int i = 0; i < 400; i++)
        complete_fragment();
    run_until(now_ms_ + 30000);
    EXPECT_EQ(count_of_names("main.", ".ts"), 100u);
}

// A rung that is not there is waited for before the first segment.
TEST_F(Publisher, WaitsForARungWithAFewOpenFiles)
{
    const resource_limit few(RLIMIT_NOFILE, 256);
    publisher_settings s = settings();
    rendition_settings other = s.renditions.front();
    other.name = "low";
    other.sources = {scratch_.path() / "nowhere"};
    s.renditions.push_back(other);
    start_publisher(s);
    for (int i = 0; i < 400; i++)
        complete_fragment();
    run_until(now_ms_ + 7500);
    EXPECT_EQ(count_of_names("main.", ".ts"), 0u);
    EXPECT_GT(publisher_->next_step_ms(now_ms_), 0) << "nothing is read meanwhile";
    run_until(now_ms_ + 60000);
    EXPECT_EQ(count_of_names("main.", ".ts"), 100u);
}

// The state has no room for more, for a while.
TEST_F(Publisher, RepeatsCuesInASegmentThatCouldNotBeSavedAtOnce)
{
    languages_ = {"eng"};
    cue_end_ = "00:00:04.000";
    publish_seconds(33);
    const auto log = scratch_.path() / "output/.index.m3u8.sqlite3-wal";
    ASSERT_GT(std::filesystem::file_size(log), std::filesystem::file_size(newest_path()))
        << "there is to be room for segments";
    {
        std::ignore = std::signal(SIGXFSZ, SIG_IGN);
        const resource_limit full(RLIMIT_FSIZE, std::filesystem::file_size(log));
        publish_seconds(4);
        EXPECT_NE(publisher_->trouble(now_ms_), "");
    }
    publish_seconds(4);
    EXPECT_EQ(publisher_->trouble(now_ms_), "");
    const std::string list = read_list("main.sub-eng.m3u8");
    uint64_t before = 3; // fragment
    const std::string entry = "\nmain.";
    for (size_t at = list.find(entry, list.find(entry) + 1); at != std::string::npos;
         at = list.find(entry, at + 1)) {
        const std::string name = list.substr(at + 1, list.find('\n', at + 1) - at - 1);
        const std::string text = read_list(name.c_str());
        EXPECT_NE(text.find(fragment_file_name({"ch1", before})), std::string::npos) << text;
        before += 4;
    }
    EXPECT_EQ(before, 39u) << list;
}

TEST_F(Publisher, TellsWholeMasterFactsAlsoWhenTheStateWasLost)
{
    languages_ = {"eng", "en_US"};
    publish_seconds(12);
    lose_state();
    start_again();
    run_until(now_ms_ + 1000);
    const std::string master = read_list("index.m3u8");
    EXPECT_EQ(master.find("BANDWIDTH=0"), std::string::npos) << master;
    EXPECT_NE(master.find("INDEPENDENT"), std::string::npos) << "the lists say it";
    EXPECT_NE(master.find("LANGUAGE=\"en\""), std::string::npos) << master;
    complete_fragment();
    publish_seconds(5);
    EXPECT_EQ(count_of_names("main.sub-", ".m3u8"), 2u) << "the same as before";
}

TEST_F(Publisher, TellsAnewThatBytesAreFullWhenTheirNumberHasChanged)
{
    publisher_settings s = settings();
    s.window = 3600;
    s.in_folders = true;
    const auto is_told = [&](uint64_t most_bytes) {
        s.most_bytes = most_bytes;
        publisher_->change(s);
        testing::internal::CaptureStderr();
        publish_seconds(40);
        return testing::internal::GetCapturedStderr().find("bytes are full") != std::string::npos;
    };
    start_publisher(s);
    EXPECT_TRUE(is_told(200000));
    EXPECT_FALSE(is_told(0)) << "it takes as many as it wants";
    EXPECT_TRUE(is_told(150000));
}

TEST_F(Publisher, ListsAllThatComesAtOnceUntilPlayersHaveSeenIt)
{
    publish_seconds(80);
    const auto count = [](const std::string& list) {
        size_t segments = 0;
        for (size_t at = list.find("#EXTINF"); at != std::string::npos;
             at = list.find("#EXTINF", at + 1))
            segments++;
        return segments;
    };
    EXPECT_EQ(count(last_list_), 15u);
    const std::string newest = last_list_.substr(last_list_.rfind("main."));
    for (int i = 0; i < 400; i++)
        complete_fragment();
    do {
        publisher_->step(now_ms_);
    } while (publisher_->next_step_ms(now_ms_) == 0);
    run_until(now_ms_ + 1000);
    EXPECT_NE(last_list_.find(newest), std::string::npos) << last_list_;
    EXPECT_GE(count(last_list_), 100u);
    publish_seconds(12);
    EXPECT_EQ(count(last_list_), 15u) << last_list_;
}

// The state stands in the directory that was removed.
TEST_F(Publisher, GoesOnWhenTheStateCannotBeMadeAnewAtOnce)
{
    publish_seconds(12);
    const auto output = scratch_.path() / "output";
    const std::string newest = last_list_.substr(last_list_.rfind("main."));
    std::filesystem::rename(output, scratch_.path() / "gone");
    std::filesystem::create_directories(output / ".index.m3u8.sqlite3"); // in its place
    publish_seconds(4);
    EXPECT_NE(publisher_->trouble(now_ms_).find("unable to open database file"), std::string::npos);
    EXPECT_FALSE(is_there("main.m3u8")) << "nothing is listed that is not saved";
    std::filesystem::remove(output / ".index.m3u8.sqlite3");
    publish_seconds(5);
    EXPECT_EQ(publisher_->trouble(now_ms_), "");
    EXPECT_GT(first_segment(last_list_), newest);
    const std::string list = last_list_;
    start_again();
    publish_seconds(4);
    EXPECT_EQ(first_segment(last_list_), first_segment(list)) << "the new state has all of it";
}

TEST_F(PublisherWithAPeer, AsksNoneWhenItGoesOnBehindWhatPeersStillList)
{
    const auto now = std::filesystem::file_time_type::clock::now();
    EXPECT_EQ(server_.requests().size(), 1u) << "there was no state";
    publish_seconds_of(12, now);
    EXPECT_EQ(requests_of_start(), 1u) << "the list is short";
    publish_seconds_of(12, now);
    EXPECT_EQ(requests_of_start(), 0u);
    publish_seconds_of(4, now - std::chrono::seconds(20));
    EXPECT_EQ(requests_of_start(), 1u);
}

// A list that is long enough has all that was missed.
TEST_F(PublisherWithAPeer, GoesOnBehindAJumpThatItMissedAsTheOther)
{
    const auto long_ago = std::filesystem::file_time_type::clock::now() - std::chrono::minutes(1);
    publish_seconds_of(30, long_ago);
    const auto [first, last] = listed();
    const auto told = [this] {
        testing::internal::CaptureStderr();
        start_publisher(with_peer());
        return testing::internal::GetCapturedStderr();
    };
    let_peer_list(first, last + 9, last);
    EXPECT_EQ(told(), "");
    let_peer_list(first, last + 9, last + 4);
    EXPECT_EQ(told(), server_.url() + "/ch1: the presentation goes on as there, behind segment " +
                          std::to_string(last + 4) + '\n');
}

// What it lists then is what came behind the place.
TEST_F(PublisherWithAPeer, GoesOnAsTheOtherBehindAJumpThatItMissedWhileItRuns)
{
    publish_seconds(30);
    const auto [first, last] = listed();
    number_ += 1000; // fragments of which it gets nothing
    let_peer_list(first, last + 9, last + 4);
    look_at_peer();
    testing::internal::CaptureStderr();
    publish_seconds(30);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "the presentation goes on as there, behind segment " + std::to_string(last + 4)),
              std::string::npos);
    EXPECT_EQ(listed().first, last + 5);
    EXPECT_EQ(parse_media_list(read_list()).discontinuity_sequence, 1u);
    EXPECT_EQ(read_list().find("#EXT-X-DISCONTINUITY\n"), std::string::npos);
}

// What is held back until then is listed with the end.
TEST_F(PublisherWithAPeer, EndsAlsoWhileTheOtherHasALongerList)
{
    now_ms_ = boot_ms(); // by which it ends
    publish_seconds(12);
    const auto [first, last] = listed();
    let_peer_list(first - 20, last);
    look_at_peer();
    ASSERT_NE(publisher_->trouble(now_ms_).find("shorter than that of a peer"), std::string::npos);
    EXPECT_TRUE(publisher_->end(now_ms_));
    EXPECT_TRUE(parse_media_list(read_list()).ended);
}

TEST_F(PublisherWithAPeer, IsInTroubleWhileItsListIsBehindTheOther)
{
    publish_seconds(30);
    const auto [first, last] = listed();
    let_peer_list(first, last + 2);
    look_at_peer();
    EXPECT_EQ(publisher_->trouble(now_ms_), "");
    let_peer_list(first, last + 3);
    look_at_peer();
    EXPECT_NE(publisher_->trouble(now_ms_).find("the list is behind that of a peer"),
              std::string::npos);
}

TEST_F(PublisherWithAPeer, TellsThatTheClockIsHalfATurnAwayWheneverItIs)
{
    const int64_t now = unix_ms() * pts_ticks_per_millisecond;
    number_ = static_cast<uint64_t>(now % pts_modulus / pts_ticks_per_second); // it shows that
    const auto told = [this] {
        testing::internal::CaptureStderr();
        publish_seconds(3);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(told().find("half a turn"), std::string::npos);
    number_ += pts_modulus / 2 / pts_ticks_per_second;
    EXPECT_NE(told().find("the stream's clock is half a turn from the time of day"),
              std::string::npos);
    EXPECT_EQ(told().find("half a turn"), std::string::npos) << "once";
}
