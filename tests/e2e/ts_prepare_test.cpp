// Runs vorn_ts_prepare between real descriptors, alone and in front of the program.

#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/clocked_stream.hpp"
#include "tests/support/expect_run.hpp"
#include "tests/support/program_run.hpp"
#include "tests/support/stream_builder.hpp"

namespace
{

constexpr size_t start_up_bytes = 2 << 20;
constexpr size_t look_ahead_bytes = 1540096 + 3008;
constexpr int64_t second = 90000;

enum class input_kind { file, pipe };

struct filter_run {
    std::vector<std::string> arguments = {};
    byte_string input = {};
    input_kind kind = input_kind::pipe;
    int pipe_flags = 0;      // O_NONBLOCK: of both pipes, as a careless parent leaves them
    int output_pipe = 65536; // bytes that the reader's pipe holds
    bool reader_leaves = false;
};

struct filter_result {
    byte_string output;
    std::string errors;
    int status = -1; // 128 and the signal's number when one ended it
    long waits = 0;  // how often it gave the processor up
};

int checked(int result)
{
    if (result < 0)
        throw std::runtime_error("a call of the test's failed");
    return result;
}

std::array<int, 2> make_pipe(int flags)
{
    std::array<int, 2> ends{};
    checked(pipe2(ends.data(), O_CLOEXEC | flags));
    return ends;
}

int memory_file(const byte_string& bytes)
{
    const int fd = checked(memfd_create("input", MFD_CLOEXEC));
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    checked(static_cast<int>(lseek(fd, 0, SEEK_SET)));
    return fd;
}

pid_t start(const std::vector<std::string>& arguments, int input, int output, int errors)
{
    std::vector<std::string> words = {TS_PREPARE};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t pid = checked(fork());
    if (pid == 0) {
        if (dup2(input, 0) == 0 && dup2(output, 1) == 1 && dup2(errors, 2) == 2)
            execv(argv[0], argv.data());
        _exit(98);
    }
    return pid;
}

int ending(pid_t pid, rusage& usage)
{
    int status = 0;
    checked(wait4(pid, &status, 0, &usage));
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int ending(pid_t pid)
{
    rusage usage{};
    return ending(pid, usage);
}

template <typename Bytes>
bool read_some(int& fd, Bytes& out)
{
    std::array<char, 65536> buffer{};
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got > 0)
        out.insert(out.end(), buffer.begin(), buffer.begin() + got);
    if (got == 0 || (got < 0 && errno != EAGAIN)) {
        close(fd);
        fd = -1;
    }
    return fd >= 0;
}

// Feeds and reads until the filter has closed both of its outputs.
void serve(const byte_string& input, int& feed, int& output, int& errors, filter_result& result)
{
    size_t fed = 0;
    while (output >= 0 || errors >= 0) {
        std::array<pollfd, 3> fds{pollfd{output, POLLIN, 0}, pollfd{errors, POLLIN, 0},
                                  pollfd{feed, POLLOUT, 0}};
        if (poll(fds.data(), fds.size(), 60'000) <= 0)
            FAIL() << "the filter hangs";
        if (fds[0].revents != 0)
            read_some(output, result.output);
        if (fds[1].revents != 0)
            read_some(errors, result.errors);
        if (fds[2].revents == 0)
            continue;
        const ssize_t went =
            write(feed, input.data() + fed, std::min<size_t>(input.size() - fed, 9999));
        fed += went > 0 ? static_cast<size_t>(went) : 0;
        if ((went < 0 && errno != EAGAIN) || fed == input.size()) {
            close(feed);
            feed = -1;
        }
    }
}

filter_result run_filter(const filter_run& run)
{
    std::signal(SIGPIPE, SIG_IGN);
    filter_result result;
    std::array<int, 2> output = make_pipe(run.pipe_flags);
    std::array<int, 2> errors = make_pipe(0);
    checked(fcntl(output[1], F_SETPIPE_SZ, run.output_pipe));
    int feed = -1;
    int input = -1;
    if (run.kind == input_kind::file) {
        input = memory_file(run.input);
    } else {
        const std::array<int, 2> ends = make_pipe(0);
        input = ends[0];
        feed = ends[1];
        checked(fcntl(feed, F_SETFL, O_NONBLOCK));
        checked(fcntl(input, F_SETFL, run.pipe_flags));
    }
    const pid_t pid = start(run.arguments, input, output[1], errors[1]);
    for (const int fd : {input, output[1], errors[1]})
        close(fd);
    if (run.reader_leaves) {
        close(output[0]);
        output[0] = -1;
    }
    serve(run.input, feed, output[0], errors[0], result);
    for (const int fd : {feed, output[0], errors[0]}) // a filter that hangs ends then
        if (fd >= 0)
            close(fd);
    rusage usage{};
    result.status = ending(pid, usage);
    result.waits = usage.ru_nvcsw;
    return result;
}

byte_string without(const byte_string& packets, const std::vector<uint16_t>& pids)
{
    return packets_without_pids(packets, pids);
}

clocked_stream some_seconds(size_t frames = 250)
{
    clocked_stream stream;
    stream.tables().frames(10 * second, frames);
    return stream;
}

TEST(TsPrepare, PassesAFileWithTheTablesInFrontAndNoPadding)
{
    const clocked_stream stream = some_seconds();
    const filter_result got = run_filter({.input = stream.bytes, .kind = input_kind::file});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.errors, "");
    EXPECT_EQ(without(got.output, {0, 0x1000}), without(stream.bytes, {0, 0x1000}));
    EXPECT_GE(packets_of_pid(got.output, 0).size(), 5 * packet_bytes);
    EXPECT_TRUE(packets_of_pid(got.output, null_pid).empty());
}

TEST(TsPrepare, PadsAPipeAndFlushesTheReadersLookAheadAtTheEnd)
{
    const clocked_stream stream = some_seconds();
    const filter_result got = run_filter({.input = stream.bytes});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.errors, "");
    EXPECT_EQ(got.output.size() % packet_bytes, 0U);
    EXPECT_EQ(without(got.output, {0, 0x1000, null_pid}), without(stream.bytes, {0, 0x1000}));
    EXPECT_GE(got.output.size(), start_up_bytes);
    const byte_string tail(got.output.end() - look_ahead_bytes, got.output.end());
    EXPECT_EQ(packets_of_pid(tail, null_pid), null_packets(tail.size() / packet_bytes));
}

TEST(TsPrepare, PassesThroughPipesThatDoNotBlockAndHoldLittle)
{
    const clocked_stream stream = some_seconds(2000);
    for (const int flags : {0, O_NONBLOCK}) {
        const filter_result got =
            run_filter({.input = stream.bytes, .pipe_flags = flags, .output_pipe = 4096});
        EXPECT_EQ(got.status, 0);
        EXPECT_EQ(without(got.output, {0, 0x1000, null_pid}), without(stream.bytes, {0, 0x1000}));
    }
}

TEST(TsPrepare, DoesNotPadOnRequest)
{
    const clocked_stream stream = some_seconds();
    const filter_result got = run_filter({.arguments = {"--pad-to", "0"}, .input = stream.bytes});
    EXPECT_EQ(got.status, 0);
    EXPECT_TRUE(packets_of_pid(got.output, null_pid).empty());
    EXPECT_EQ(without(got.output, {0, 0x1000}), without(stream.bytes, {0, 0x1000}));
}

// The value of a counter in the last line of --stats; 0 before there is one.
size_t counter(const std::string& lines, const std::string& name)
{
    const std::string key = "\"" + name + "\":";
    const size_t at = lines.rfind(key, lines.rfind('\n'));
    return at == std::string::npos ? 0 : std::stoul(lines.substr(at + key.size()));
}

// A reader that reads nothing: its pipe is not filled up to the brim with padding, and what comes
// in finds room in it.
TEST(TsPrepare, KeepsRoomForInputWhereTheReaderIsBehind)
{
    std::array<int, 2> input = make_pipe(0);
    std::array<int, 2> output = make_pipe(0);
    std::array<int, 2> errors = make_pipe(0);
    const pid_t pid = start({"--stats", "0.1"}, input[0], output[1], errors[1]);
    for (const int fd : {input[0], output[1], errors[1]})
        close(fd);
    std::string lines;
    const auto wait_until = [&](const std::function<bool()>& condition) {
        pollfd fds{errors[0], POLLIN, 0};
        while (!condition())
            if (poll(&fds, 1, 60'000) <= 0 || !read_some(errors[0], lines))
                throw std::runtime_error("the filter hangs");
    };
    clocked_stream stream;
    size_t fed = 0;
    const auto feed_the_rest = [&] {
        const std::span<const uint8_t> more = std::span(stream.bytes).subspan(fed);
        EXPECT_EQ(write(input[1], more.data(), more.size()), static_cast<ssize_t>(more.size()));
        fed += more.size();
    };
    stream.tables().frames(10 * second, 10);
    feed_the_rest();
    wait_until([&] { return counter(lines, "reader_behind") != 0; });
    EXPECT_GT(counter(lines, "padding_packets"), 0U);

    stream.frames(11 * second, 5);
    feed_the_rest();
    wait_until(
        [&] { return counter(lines, "input_packets") == stream.bytes.size() / packet_bytes; });
    int standing = 0;
    checked(ioctl(output[0], FIONREAD, &standing));
    EXPECT_EQ(static_cast<size_t>(standing) / packet_bytes,
              counter(lines, "output_packets") + counter(lines, "padding_packets"));

    close(input[1]);
    byte_string got;
    while (read_some(output[0], got)) {
    }
    while (read_some(errors[0], lines)) {
    }
    EXPECT_EQ(ending(pid), 0);
    EXPECT_EQ(without(got, {0, 0x1000, null_pid}), without(stream.bytes, {0, 0x1000}));
}

TEST(TsPrepare, EndsWhenItsReaderHasGone)
{
    const clocked_stream stream = some_seconds();
    const filter_result got = run_filter({.input = stream.bytes, .reader_leaves = true});
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.errors, "vorn_ts_prepare: the reader has gone\n");
}

TEST(TsPrepare, PassesAnEmptyInputOn)
{
    for (const input_kind kind : {input_kind::file, input_kind::pipe}) {
        const filter_result got = run_filter({.kind = kind});
        EXPECT_EQ(got.status, 0);
        EXPECT_EQ(got.errors, "");
        EXPECT_TRUE(got.output.empty());
    }
}

TEST(TsPrepare, RefusesWhatItCannotUse)
{
    const filter_result got = run_filter({.arguments = {"--pad-to", "fast"}});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.errors, "vorn_ts_prepare: --pad-to needs a rate from 1M to 1000M, 0 or auto\n"
                          "Try 'vorn_ts_prepare --help'.\n");
}

TEST(TsPrepare, ReportsInputThatCannotBeRead)
{
    std::array<int, 2> output = make_pipe(0);
    std::array<int, 2> errors = make_pipe(0);
    const int directory = checked(open("/", O_RDONLY | O_CLOEXEC));
    const pid_t pid = start({}, directory, output[1], errors[1]);
    for (const int fd : {output[1], errors[1], directory})
        close(fd);
    std::string text;
    while (read_some(errors[0], text)) {
    }
    close(output[0]);
    EXPECT_EQ(ending(pid), 2);
    EXPECT_EQ(text, "vorn_ts_prepare: reading failed: Is a directory\n");
}

TEST(TsPrepare, PrintsCountersAtTheEnd)
{
    const clocked_stream stream = some_seconds();
    const filter_result got = run_filter(
        {.arguments = {"--stats", "100"}, .input = stream.bytes, .kind = input_kind::file});
    const std::string packets = std::to_string(stream.bytes.size() / packet_bytes);
    EXPECT_NE(got.errors.find("\"input_packets\":" + packets + ","), std::string::npos)
        << got.errors;
    EXPECT_EQ(got.errors.front(), '{');
    EXPECT_EQ(got.errors.substr(got.errors.size() - 2), "}\n");
}

TEST(TsPrepare, LetsTimeGoOnWhereAFileBeginsAgain)
{
    clocked_stream stream = some_seconds();
    const byte_string once = stream.bytes;
    stream.raw(once).raw(once);
    const filter_result got = run_filter({.input = stream.bytes});
    const std::vector<int64_t> pictures = stamps_of_pid(got.output, 0x100);
    ASSERT_EQ(pictures.size(), 750U);
    for (size_t i = 1; i < pictures.size(); i++)
        EXPECT_EQ(pictures[i] - pictures[i - 1], ticks_per_frame);
}

TEST(TsPrepare, DescribesAStreamInsteadOfPassingIt)
{
    for (const input_kind kind : {input_kind::file, input_kind::pipe}) {
        const filter_result got =
            run_filter({.arguments = {"--describe"}, .input = some_seconds().bytes, .kind = kind});
        EXPECT_EQ(got.status, 0);
        EXPECT_EQ(got.errors, "");
        const std::string text(got.output.begin(), got.output.end());
        EXPECT_NE(text.find("Programme 1, PMT 1000h, PCR 0100h\n"
                            "  0100h  H.264 video: taken as video\n"),
                  std::string::npos)
            << text;
    }
}

// Writers that open a FIFO one after the other.
TEST(TsPrepare, LingersForAnotherWriter)
{
    const scratch_directory scratch;
    const std::string fifo = (scratch.path() / "fifo").string();
    checked(mkfifo(fifo.c_str(), 0600));
    const clocked_stream stream = some_seconds(50);

    std::array<int, 2> output = make_pipe(0);
    std::array<int, 2> errors = make_pipe(0);
    const int input = checked(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int first = checked(open(fifo.c_str(), O_WRONLY | O_CLOEXEC));
    checked(fcntl(input, F_SETFL, 0));
    const pid_t pid = start({"--linger", "86400", "--stats", "0.1"}, input, output[1], errors[1]);
    for (const int fd : {input, output[1], errors[1]})
        close(fd);

    // Half a packet is no packet only at the end of the input, so that tells when it was seen.
    constexpr size_t half = 100;
    checked(static_cast<int>(write(first, stream.bytes.data(), stream.bytes.size())));
    checked(static_cast<int>(write(first, stream.bytes.data(), half)));
    close(first);
    byte_string got;
    std::string lines;
    const auto read_until = [&](const std::function<bool()>& condition) {
        std::array<pollfd, 2> fds{pollfd{output[0], POLLIN, 0}, pollfd{errors[0], POLLIN, 0}};
        while (!condition()) {
            if (poll(fds.data(), fds.size(), 60'000) <= 0)
                throw std::runtime_error("the filter hangs");
            if (fds[0].revents != 0)
                read_some(output[0], got);
            if (fds[1].revents != 0)
                read_some(errors[0], lines);
        }
    };
    read_until([&] { return counter(lines, "skipped_bytes") == half; });
    const int second_writer = checked(open(fifo.c_str(), O_WRONLY | O_CLOEXEC));
    checked(static_cast<int>(write(second_writer, stream.bytes.data(), stream.bytes.size())));
    const size_t wanted = 2 * without(stream.bytes, {0, 0x1000}).size();
    read_until([&] { return without(got, {0, 0x1000, null_pid}).size() >= wanted; });
    EXPECT_EQ(without(got, {0, 0x1000, null_pid}).size(), wanted);

    close(second_writer);
    close(output[0]);
    while (read_some(errors[0], lines)) {
    }
    EXPECT_EQ(ending(pid), 2);
    EXPECT_NE(lines.find("vorn_ts_prepare: the reader has gone\n"), std::string::npos) << lines;
}

TEST(TsPrepare, LingersWithoutWorkAndThenEnds)
{
    const clocked_stream stream = some_seconds(5);
    const filter_result got =
        run_filter({.arguments = {"--linger", "0.5", "--pad-to", "0"}, .input = stream.bytes});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(without(got.output, {0, 0x1000}), without(stream.bytes, {0, 0x1000}));
    EXPECT_LT(got.waits, 60); // one in each nap of a few ms would make hundreds
}

TEST(TsPrepare, DoesNotLingerBehindAFile)
{
    const filter_result got = run_filter({.arguments = {"--linger", "100"},
                                          .input = some_seconds(5).bytes,
                                          .kind = input_kind::file});
    EXPECT_EQ(got.status, 0);
}

// In front of the program

constexpr int64_t first_pts = 900000;

// Ten seconds with a keyframe each second.
void add_seconds(stream_builder& stream)
{
    for (int64_t n = 0; n < 10; n++) {
        stream.keyframe(first_pts + n * second, 3000);
        for (int64_t picture = 1; picture < 25; picture++) {
            stream.picture(first_pts + n * second + picture * 3600, 1000);
            stream.audio(first_pts + n * second + picture * 3600);
        }
        stream.tables();
    }
}

// The packets of video and audio in the fragments, one behind the other.
byte_string media_of(const file_map& files)
{
    byte_string media;
    for (const auto& [name, bytes] : files)
        if (name.ends_with(".ts"))
            append(media, without(bytes, {0, 0x1000, null_pid}));
    return media;
}

run_result run_on_pipe(const byte_string& stream, std::vector<std::string> arguments)
{
    return run_program({.arguments = std::move(arguments),
                        .input = {.from = program_input::source::pipe, .bytes = stream}});
}

TEST(TsPrepare, LeavesTheFragmentsPacketsAsTheyAre)
{
    stream_builder stream;
    stream.start_up();
    add_seconds(stream);
    const run_result alone = run_on_pipe(stream.bytes(), {"--frag-duration", "2", "--no-padding"});
    const filter_result prepared = run_filter({.input = stream.bytes()});
    const run_result with = run_on_pipe(prepared.output, {"--frag-duration", "2", "--no-padding"});
    EXPECT_EQ(alone.ending, "exit 0");
    EXPECT_EQ(with.ending, "exit 0");
    EXPECT_FALSE(media_of(alone.files).empty());
    EXPECT_EQ(media_of(with.files), media_of(alone.files));
    for (const auto& [name, bytes] : alone.files)
        if (name.ends_with(".m3u8")) {
            EXPECT_EQ(with.files.at(name), bytes) << name;
        }
}

// Keyframes a second apart, whose clock jumps in the middle.
TEST(TsPrepare, LetsThePlaylistGoOnWhereTheClockJumps)
{
    for (const int64_t jump : {700 * second, -100 * second}) {
        stream_builder stream;
        stream.start_up();
        for (int64_t n = 0; n < 20; n++) {
            const int64_t from = 200 * second + n * second + (n >= 10 ? jump : 0);
            for (int64_t picture = 0; picture < 25; picture++) {
                const int64_t pts = from + picture * 3600;
                if (picture == 0)
                    stream.keyframe(pts);
                else
                    stream.picture(pts);
            }
        }
        const filter_result prepared = run_filter({.input = stream.bytes()});
        EXPECT_EQ(prepared.errors.substr(0, 45), "vorn_ts_prepare: the clock of programme 1 jum");
        const run_result with = run_on_pipe(prepared.output, {"--frag-duration", "3"});
        const byte_string& playlist = with.files.at("ch1.m3u8.av.m3u8");
        const std::string text(playlist.begin(), playlist.end());
        size_t fragments = 0;
        for (size_t at = 0; (at = text.find("#EXTINF:", at)) != std::string::npos; fragments++)
            EXPECT_EQ(text.substr(at++, 14), "#EXTINF:4.000,");
        EXPECT_EQ(fragments, 4U);
    }
}

TEST(TsPrepare, LetsTheProgramStartOnAStreamWhoseTablesComeLate)
{
    stream_builder stream;
    stream.null_until(700000).tables(2);
    add_seconds(stream);
    stream.null_until(3 << 20);
    EXPECT_EQ(run_on_pipe(stream.bytes(), {"--no-padding"}).ending, "exit 2");

    const filter_result prepared = run_filter({.input = stream.bytes()});
    const run_result with = run_on_pipe(prepared.output, {"--no-padding"});
    EXPECT_EQ(with.ending, "exit 0");
    EXPECT_TRUE(with.files.contains("ch1.00000000.ts"));
}

TEST(TsPrepare, LetsTheProgramUseAStreamFromItsFirstKeyframeOn)
{
    stream_builder stream;
    stream.tables();
    add_seconds(stream);
    ASSERT_LT(stream.bytes().size(), start_up_bytes); // too short for the program alone
    const filter_result prepared = run_filter({.input = stream.bytes()});
    const run_result with = run_on_pipe(prepared.output, {"--no-padding"});
    EXPECT_EQ(with.ending, "exit 0");
    EXPECT_EQ(media_of(with.files), without(stream.bytes(), {0, 0x1000}));
}

} // namespace
