// Runs vorn_caption_feed with a stand-in for the program that it feeds.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using words = std::vector<std::string>;
using namespace std::chrono_literals;

std::string contents_of(const std::string& path)
{
    std::ostringstream all;
    all << std::ifstream(path).rdbuf();
    return all.str();
}

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

std::string cue(const std::string& start, const std::string& end, const std::string& text)
{
    return start + " --> " + end + "\n" + text + "\n\n";
}

// Waits for what has to come about sooner or later. False when it does not within a minute.
template <typename Condition>
bool comes_true(Condition holds)
{
    for (int i = 0; i < 6000; ++i) {
        if (holds())
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

class CaptionFeed : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "caption_feed.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern;
        std::filesystem::current_path(directory);
    }

    void TearDown() override
    {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(directory);
    }

    // Starts the feeder with what is in the file "input" on standard input.
    void start(words arguments)
    {
        arguments.insert(arguments.begin(), CAPTION_FEED);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);

        feeder = fork();
        if (feeder != 0)
            return;
        signal(SIGINT, SIG_DFL); // which a shell has ignored by what it runs in the background
        const int input = open("input", O_RDONLY | O_CREAT, 0600);
        const int output = open("output", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int errors = open("errors", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (dup2(input, 0) == 0 && dup2(output, 1) == 1 && dup2(errors, 2) == 2)
            execv(argv[0], argv.data());
        _exit(98);
    }

    int wait_for_end() const
    {
        int status = 0;
        EXPECT_EQ(waitpid(feeder, &status, 0), feeder);
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status);
    }

    int run(const words& arguments)
    {
        start(arguments);
        return wait_for_end();
    }

    static std::string output() { return contents_of("output"); }
    static std::string errors() { return contents_of("errors"); }

    std::string directory;
    pid_t feeder = -1;
};

TEST_F(CaptionFeed, SendsTheCuesOfEveryLanguage)
{
    write_file("eng.vtt", "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:00:00.000\n\n"
                          "one\n00:01.000 --> 00:02.000 line:0\nHello\nthere\n\n");
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "--pace", "none", "--", CAPTION_RECEIVER, "--until",
                   "1"}),
              0);
    EXPECT_EQ(output(), "1 eng 1000 2000 1000 990000 Hello|there one line:0\n0 bytes of input\n");
    EXPECT_EQ(errors(), "");

    write_file("spa.vtt", "WEBVTT\n\n" + cue("00:01.000", "00:02.000", "Hola"));
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "--captions", "spa=spa.vtt", "--base-time", "45000",
                   "--pace", "none", "--", CAPTION_RECEIVER, "--until", "2"}),
              0);
    EXPECT_NE(output().find("1 eng 1000 2000 1000 990000 Hello|there one line:0\n"),
              std::string::npos);
    EXPECT_NE(output().find("2 spa 1000 2000 1000 135000 Hola  \n"), std::string::npos);
}

TEST_F(CaptionFeed, LeavesStandardInputToTheCommand)
{
    write_file("eng.vtt", "WEBVTT\n");
    write_file("input", std::string(100000, 'x'));
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "--captions", "spa=|cat", CAPTION_RECEIVER}), 0);
    EXPECT_EQ(output(), "100000 bytes of input\n");
}

TEST_F(CaptionFeed, PassesTheExitStatusOn)
{
    write_file("eng.vtt", "WEBVTT\n");
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", CAPTION_RECEIVER, "--status", "2"}), 2);
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", CAPTION_RECEIVER, "--signal", "9"}), 128 + 9);
    EXPECT_EQ(errors(), "");
}

TEST_F(CaptionFeed, PassesTheExitStatusOnWhereItsParentIgnoresTheEndOfChildren)
{
    write_file("eng.vtt", "WEBVTT\n");
    ASSERT_NE(std::signal(SIGCHLD, SIG_IGN), SIG_ERR);
    start({"--captions", "eng=eng.vtt", CAPTION_RECEIVER, "--status", "2"});
    ASSERT_NE(std::signal(SIGCHLD, SIG_DFL), SIG_ERR);
    EXPECT_EQ(wait_for_end(), 2);
}

TEST_F(CaptionFeed, CommandThatCannotBeExecuted)
{
    write_file("eng.vtt", "WEBVTT\n");
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "./nowhere"}), 127);
    EXPECT_EQ(errors(),
              "vorn_caption_feed: cannot execute './nowhere': No such file or directory\n");
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "./eng.vtt"}), 126);
}

TEST_F(CaptionFeed, SourceThatCannotBeOpened)
{
    EXPECT_EQ(run({"--captions", "eng=nowhere.vtt", CAPTION_RECEIVER}), 125);
    EXPECT_EQ(errors(),
              "vorn_caption_feed: cannot open 'nowhere.vtt': No such file or directory\n");
    EXPECT_EQ(output(), "");
    EXPECT_EQ(run({"--captions", "eng=.", CAPTION_RECEIVER}), 125);
}

TEST_F(CaptionFeed, Usage)
{
    EXPECT_EQ(run({"--captions", "eng=eng.vtt"}), 125);
    EXPECT_EQ(errors(), "vorn_caption_feed: no command is given\n"
                        "Try 'vorn_caption_feed --help'.\n");
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_EQ(output().find("usage: vorn_caption_feed --captions LANG=SOURCE"), 0U);
}

TEST_F(CaptionFeed, BadCuesAreReportedAndSkipped)
{
    write_file("eng.vtt", "WEBVTT\n\n" + cue("00:00:01,000", "00:00:02,000", "commas") +
                              cue("00:02.000", "00:01.000", "backwards") +
                              cue("00:03.000", "00:04.000", std::string(65500, 'x')) +
                              cue("00:05.000", "00:06.000", "") +
                              cue("00:07.000", "00:08.000", "good"));
    write_file("spa.vtt", "1\n00:00:01,000 --> 00:00:02,000\nSRT\n");
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "--captions", "spa=spa.vtt", "--pace", "none",
                   CAPTION_RECEIVER, "--until", "1"}),
              0);
    EXPECT_EQ(output(), "1 eng 7000 8000 7000 630000 good  \n0 bytes of input\n");
    const std::string text = errors();
    for (const char* line :
         {"eng.vtt:3: the start time is not of the form hours:mm:ss.ttt; the cue is skipped\n",
          "eng.vtt:6: the cue does not end after it starts; the cue is skipped\n",
          "eng.vtt:9: the cue is too large; the cue is skipped\n",
          "spa.vtt:1: not WebVTT, since the first line is not 'WEBVTT'; ignored up to its end\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << "is not in\n" << text;
}

TEST_F(CaptionFeed, WritersOfAFifoComeAndGo)
{
    ASSERT_EQ(mkfifo("eng.fifo", 0600), 0);
    start({"--captions", "eng=eng.fifo", CAPTION_RECEIVER, "--until", "3"});
    write_file("eng.fifo", "WEBVTT\n\n" + cue("00:01.000", "00:02.000", "first") +
                               "00:03.000 --> 00:04.000\ncut o");
    // A cue that has been cut off is complete once the end has been seen.
    EXPECT_TRUE(comes_true([] { return output().ends_with(" cut o  \n"); }));
    write_file("eng.fifo", "WEBVTT\n\n" + cue("00:05.000", "00:06.000", "second"));
    EXPECT_EQ(wait_for_end(), 0);
    EXPECT_EQ(output(), "1 eng 1000 2000 1000 90000 first  \n"
                        "1 eng 3000 4000 3000 270000 cut o  \n"
                        "1 eng 5000 6000 5000 450000 second  \n"
                        "0 bytes of input\n");
    EXPECT_EQ(errors(), "");
}

TEST_F(CaptionFeed, ASilentSourceHoldsUpNoOther)
{
    ASSERT_EQ(mkfifo("eng.fifo", 0600), 0);
    write_file("spa.vtt", "WEBVTT\n\n" + cue("00:01.000", "00:02.000", "Hola"));
    EXPECT_EQ(run({"--captions", "eng=eng.fifo", "--captions", "spa=|cat spa.vtt; sleep 1000",
                   CAPTION_RECEIVER, "--until", "1"}),
              0);
    EXPECT_EQ(output(), "2 spa 1000 2000 1000 90000 Hola  \n0 bytes of input\n");
}

TEST_F(CaptionFeed, CommandsEndWithTheFeeder)
{
    write_file("eng.vtt", "WEBVTT\n\n" + cue("00:01.000", "00:02.000", "Hi"));
    EXPECT_EQ(run({"--captions", "eng=|echo $$ > pid; cat eng.vtt; exec sleep 1000",
                   CAPTION_RECEIVER, "--until", "1"}),
              0);
    const std::string stat = "/proc/" + std::to_string(std::stoi(contents_of("pid"))) + "/stat";
    EXPECT_TRUE(comes_true([&] {
        const std::string state = contents_of(stat);
        // Gone, or waiting to be reaped by whom it was left to.
        return state.empty() || state.find(") Z") != std::string::npos;
    }));
}

TEST_F(CaptionFeed, CommandThatFails)
{
    start({"--captions", "eng=|exit 3", CAPTION_RECEIVER, "--until", "1"});
    EXPECT_TRUE(comes_true([] { return !errors().empty(); }));
    EXPECT_EQ(errors(), "|exit 3: ended with status 3\n");
    EXPECT_EQ(kill(feeder, SIGTERM), 0);
    EXPECT_EQ(wait_for_end(), 128 + SIGTERM);
}

TEST_F(CaptionFeed, SignalsArePassedOn)
{
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(signal);
        start({"--captions", "eng=|echo > started; sleep 1000", CAPTION_RECEIVER, "--until", "1"});
        // Before it runs, or while it does, the signal ends the receiver all the same.
        EXPECT_TRUE(comes_true([] { return std::filesystem::exists("started"); }));
        EXPECT_EQ(kill(feeder, signal), 0);
        EXPECT_EQ(wait_for_end(), 128 + signal);
        std::filesystem::remove("started");
    }
}

// How often the process has waited for something.
long waits_of(pid_t pid)
{
    const std::string status = contents_of("/proc/" + std::to_string(pid) + "/status");
    const std::string name = "\nvoluntary_ctxt_switches:";
    const size_t at = status.find(name);
    return at == std::string::npos ? 0 : std::stol(status.substr(at + name.size()));
}

// Nobody reads what the source writes without end: it has to be held back, whether the socket is
// full or the language has had its share.
TEST_F(CaptionFeed, AReceiverThatNeverReads)
{
    ASSERT_EQ(mkfifo("eng.fifo", 0600), 0);
    for (const size_t text_bytes : {size_t{1}, size_t{50000}}) {
        SCOPED_TRACE(text_bytes);
        start(
            {"--captions", "eng=eng.fifo", CAPTION_RECEIVER, "--until", "1", "--hold", "nothing"});
        const int writer = open("eng.fifo", O_WRONLY | O_CLOEXEC); // waits for the reader
        ASSERT_GE(writer, 0);
        ASSERT_EQ(fcntl(writer, F_SETFL, O_NONBLOCK), 0);
        const std::string cues =
            "WEBVTT\n\n" + cue("00:01.000", "00:02.000", std::string(text_bytes, 'x'));
        // More than waits in the feeder, in the FIFO and in the socket together.
        constexpr size_t far_too_much = 64 * 1024 * 1024;
        constexpr size_t fifo_bytes = 65536;
        size_t taken = 0;
        pollfd room{.fd = writer, .events = POLLOUT, .revents = 0};
        // Until it has read some, and then no more.
        while (taken < far_too_much && poll(&room, 1, taken > fifo_bytes ? 300 : 60000) == 1) {
            ASSERT_EQ(room.revents, POLLOUT);
            const size_t at = taken % cues.size();
            const ssize_t wrote = write(writer, cues.data() + at, cues.size() - at);
            ASSERT_TRUE(wrote > 0 || errno == EAGAIN);
            taken += wrote > 0 ? static_cast<size_t>(wrote) : 0;
        }
        EXPECT_GT(taken, fifo_bytes);
        EXPECT_LT(taken, far_too_much);
        EXPECT_EQ(kill(feeder, SIGTERM), 0);
        EXPECT_EQ(wait_for_end(), 128 + SIGTERM);
        EXPECT_EQ(close(writer), 0);
        EXPECT_EQ(errors(), "");
    }
}

// What goes beyond its share waits, and the other language comes first.
TEST_F(CaptionFeed, NoLanguageSendsInFloods)
{
    std::string captions = "WEBVTT\n\n";
    for (int i = 0; i < 70; ++i)
        captions += cue("00:01.000", "00:02.000", "x");
    write_file("eng.vtt", captions);
    write_file("spa.vtt", "WEBVTT\n\n" + cue("00:01.000", "00:02.000", "y"));
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "--captions", "spa=spa.vtt", "--pace", "none",
                   CAPTION_RECEIVER, "--until", "71"}),
              0);
    std::vector<std::string> languages;
    std::istringstream lines(output());
    for (std::string line; std::getline(lines, line);)
        languages.push_back(line.substr(line.find(' ') + 1, 3));
    ASSERT_GE(languages.size(), 71U);
    EXPECT_EQ(std::find(languages.begin(), languages.end(), "spa") - languages.begin(), 64);
}

// A receiver that is not at work yet has been sent no cue, however long it takes.
TEST_F(CaptionFeed, RealtimeCountsFromTheReceiversFirstPacket)
{
    write_file("eng.vtt", "WEBVTT\n\n" + cue("00:00.000", "00:01.000", "now") +
                              cue("00:00.100", "00:01.000", "later") +
                              cue("59:00.000", "59:01.000", "much later"));
    start({"--captions", "eng=eng.vtt", "--lead", "0", CAPTION_RECEIVER, "--until", "2", "--hold",
           "at_work"});
    const long waits = waits_of(feeder);
    EXPECT_TRUE(comes_true([&] { return waits_of(feeder) >= waits + 5; }));
    write_file("at_work", "");
    EXPECT_EQ(wait_for_end(), 0);
    EXPECT_EQ(output(), "12 bytes waited\n" // a packet without command and pairs
                        "1 eng 0 1000 0 0 now  \n"
                        "1 eng 100 1000 100 9000 later  \n"
                        "0 bytes of input\n");
}

TEST_F(CaptionFeed, LeadSendsEarlier)
{
    write_file("eng.vtt", "WEBVTT\n\n" + cue("50:00.000", "50:01.000", "soon"));
    EXPECT_EQ(
        run({"--captions", "eng=eng.vtt", "--lead", "3000", CAPTION_RECEIVER, "--until", "1"}), 0);
}

TEST_F(CaptionFeed, BaseTimeIsWhereTheClockStarts)
{
    write_file("eng.vtt", "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:324000000,LOCAL:01:00:00.000\n\n" +
                              cue("01:00:00.100", "01:00:01.000", "hour"));
    EXPECT_EQ(run({"--captions", "eng=eng.vtt", "--base-time", "324000000", CAPTION_RECEIVER,
                   "--until", "1"}),
              0);
}

} // namespace
