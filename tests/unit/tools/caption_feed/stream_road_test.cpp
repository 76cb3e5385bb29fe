#include "tools/caption_feed/stream_road.hpp"

#include <cerrno>
#include <string>
#include <thread>
#include <tuple>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

std::string test_bytes(size_t count)
{
    std::string bytes(count, '\0');
    uint32_t state = 1;
    for (char& byte : bytes)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

// All that comes until the other end is closed, also where the end does not wait.
std::string read_all(int fd)
{
    std::string all;
    char bytes[65536];
    for (;;) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got > 0) {
            all.append(bytes, static_cast<size_t>(got));
            continue;
        }
        pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
        if (got == 0 || errno != EAGAIN || poll(&wait, 1, -1) < 0)
            return all;
    }
}

void write_all(int fd, const std::string& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
        if (put < 0)
            break;
        done += static_cast<size_t>(put);
    }
    std::ignore = close(fd);
}

// A road whose end for the program stays open, as in the process that inherits it.
struct open_road {
    explicit open_road(int input)
    {
        if (!road.open(input))
            return;
        program = dup(road.program_end);
        started = road.start();
    }
    ~open_road() { std::ignore = close(program); }

    stream_road road;
    int program = -1;
    bool started = false;
};

std::string through(int input, std::string* copy = nullptr)
{
    open_road open(input);
    EXPECT_TRUE(open.started);
    std::string arrived;
    std::thread program([&] { arrived = read_all(open.program); });
    const std::string copied = read_all(open.road.copy_end);
    open.road.release_end();
    program.join();
    if (copy != nullptr)
        *copy = copied;
    return arrived;
}

TEST(StreamRoad, FileArrivesWholeAndSoDoesItsCopy)
{
    const std::string bytes = test_bytes(5'000'001);
    std::FILE* const file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    std::rewind(file);
    std::string copy;
    EXPECT_TRUE(through(fileno(file), &copy) == bytes);
    EXPECT_TRUE(copy == bytes);
    std::ignore = std::fclose(file);
}

TEST(StreamRoad, PipeArrivesWhole)
{
    const std::string bytes = test_bytes(3'000'001);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::thread writer([&] { write_all(ends[1], bytes); });
    EXPECT_TRUE(through(ends[0]) == bytes);
    writer.join();
    std::ignore = close(ends[0]);
}

TEST(StreamRoad, SocketArrivesWhole)
{
    const std::string bytes = test_bytes(3'000'001);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    std::thread writer([&] { write_all(ends[1], bytes); });
    EXPECT_TRUE(through(ends[0]) == bytes);
    writer.join();
    std::ignore = close(ends[0]);
}

TEST(StreamRoad, ReaderIsWokenBeforeTheCopyIsFullAndAtTheEnd)
{
    const auto is_woken = [](const stream_road& road, int timeout_ms) {
        pollfd wait{.fd = road.copy_waits, .events = POLLIN, .revents = 0};
        return poll(&wait, 1, timeout_ms) == 1;
    };
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    open_road open(ends[0]);
    ASSERT_TRUE(open.started);
    const std::string bytes(open.road.copy_enough, 'x');
    ASSERT_EQ(write(ends[1], bytes.data(), 1), 1);
    char byte = 0;
    ASSERT_EQ(read(open.program, &byte, 1), 1);
    EXPECT_FALSE(is_woken(open.road, 0)); // the copy was made before
    std::thread program([&] { std::ignore = read_all(open.program); });
    ASSERT_EQ(write(ends[1], bytes.data(), bytes.size() - 1),
              static_cast<ssize_t>(bytes.size()) - 1);
    EXPECT_TRUE(is_woken(open.road, -1));
    EXPECT_FALSE(open.road.copy_has_gap);
    uint64_t times = 0;
    ASSERT_EQ(read(open.road.copy_waits, &times, sizeof times), static_cast<ssize_t>(sizeof times));
    std::ignore = close(ends[1]);
    EXPECT_TRUE(is_woken(open.road, -1));
    EXPECT_EQ(read_all(open.road.copy_end), bytes);
    open.road.release_end();
    program.join();
    std::ignore = close(ends[0]);
}

// splice(2) does not take from these.
TEST(StreamRoad, DatagramsArriveInOrder)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const std::string bytes = test_bytes(1000 * 1316);
    std::thread writer([&] {
        for (size_t at = 0; at < bytes.size(); at += 1316)
            std::ignore = write(ends[1], bytes.data() + at, 1316); // compared by what arrives
        std::ignore = close(ends[1]);
    });
    EXPECT_TRUE(through(ends[0]) == bytes);
    writer.join();
    std::ignore = close(ends[0]);
}

TEST(StreamRoad, NothingToReadIsTheEnd)
{
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(through(nothing), "");
    std::ignore = close(nothing);
}

TEST(StreamRoad, ReaderThatLagsLosesBytesAndTheProgramNone)
{
    const std::string bytes = test_bytes(8'000'000);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::thread writer([&] { write_all(ends[1], bytes); });
    open_road open(ends[0]);
    ASSERT_TRUE(open.started);

    // Nobody reads the copy until all but the end has arrived.
    std::string arrived(7'000'000, '\0');
    for (size_t done = 0; done < arrived.size();) {
        const ssize_t got = read(open.program, arrived.data() + done, arrived.size() - done);
        ASSERT_GT(got, 0);
        done += static_cast<size_t>(got);
    }
    EXPECT_TRUE(open.road.copy_has_gap);
    std::string rest;
    std::thread program([&] { rest = read_all(open.program); });
    const std::string copy = read_all(open.road.copy_end);
    open.road.release_end();
    program.join();
    writer.join();
    EXPECT_TRUE(arrived + rest == bytes);
    EXPECT_LT(copy.size(), bytes.size());
    EXPECT_TRUE(bytes.starts_with(copy));
    std::ignore = close(ends[0]);
}

TEST(StreamRoad, CopyGoesOnBehindAGap)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    open_road open(ends[0]);
    ASSERT_TRUE(open.started);
    std::string all = test_bytes(4'000'000);
    std::string arrived(all.size(), '\0');
    const auto pass = [&](size_t from, size_t count) {
        std::thread writer([&] {
            for (size_t done = 0; done < count;)
                done += static_cast<size_t>(write(ends[1], all.data() + from + done, count - done));
        });
        for (size_t done = 0; done < count;)
            done +=
                static_cast<size_t>(read(open.program, arrived.data() + from + done, count - done));
        writer.join();
    };
    pass(0, 3'000'000);
    ASSERT_TRUE(open.road.copy_has_gap);
    char bytes[65536];
    while (read(open.road.copy_end, bytes, sizeof bytes) > 0) {
    }
    open.road.copy_has_gap = false;
    pass(3'000'000, 100'000);
    std::ignore = close(ends[1]);
    const std::string copy = read_all(open.road.copy_end);
    EXPECT_TRUE(copy == all.substr(3'000'000, 100'000));
    std::ignore = close(ends[0]);
}

// Nobody reads the copy, and a file would wait for the reader.
TEST(StreamRoad, EndsAtOnceWhenItIsLetGo)
{
    std::FILE* const file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    const std::string bytes = test_bytes(4'000'000);
    ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    std::rewind(file);
    std::thread program;
    {
        open_road open(fileno(file));
        ASSERT_TRUE(open.started);
        program = std::thread([fd = dup(open.program)] {
            EXPECT_LT(read_all(fd).size(), 4'000'000U); // the rest was waiting for the reader
            std::ignore = close(fd);
        });
        pollfd copied{.fd = open.road.copy_end, .events = POLLIN, .revents = 0};
        ASSERT_EQ(poll(&copied, 1, -1), 1);
    }
    program.join();
    std::ignore = std::fclose(file);
}

TEST(StreamRoad, EndsWhenTheProgramClosesItsInput)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    {
        open_road open(ends[0]);
        ASSERT_TRUE(open.started);
        std::ignore = close(open.program);
        open.program = -1;
        ASSERT_EQ(write(ends[1], "x", 1), 1);
        EXPECT_EQ(read_all(open.road.copy_end), "x"); // ends with the road
    }
    std::ignore = close(ends[0]);
    std::ignore = close(ends[1]);
}

} // namespace
