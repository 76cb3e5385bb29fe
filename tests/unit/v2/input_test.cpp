#include "v2/input.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/ts_builder.hpp"

namespace
{

// A window that holds these bytes, unread.
sliding_window_v4_ptr window_with(const byte_string& bytes)
{
    sliding_window_v4_ptr window(sliding_window_v4_create_buffer(1 << 20));
    std::copy(bytes.begin(), bytes.end(), window->end);
    window->end += bytes.size();
    return window;
}

struct sync_case {
    std::string_view name;
    byte_string bytes;
    bool want;
    std::ptrdiff_t want_position;
};

byte_string packets_without_sync(size_t count, size_t broken)
{
    byte_string bytes = null_packets(count);
    bytes[broken * packet_bytes] = 0;
    return bytes;
}

byte_string cut_to(byte_string bytes, size_t count)
{
    bytes.resize(count);
    return bytes;
}

TEST(Synchronise, ChecksUpToEightPacketsThatAreThere)
{
    const byte_string zeros(10, 0);
    const sync_case cases[] = {
        {.name = "nothing buffered", .bytes = {}, .want = true, .want_position = 0},
        {.name = "no sync byte",
         .bytes = byte_string(5000, 0),
         .want = true,
         .want_position = 5000},
        {.name = "one packet", .bytes = null_packets(1), .want = true, .want_position = 0},
        {.name = "a packet's beginning",
         .bytes = cut_to(null_packets(1), 100),
         .want = true,
         .want_position = 0},
        {.name = "behind other bytes",
         .bytes = concat({zeros, null_packets(8)}),
         .want = true,
         .want_position = 10},
        {.name = "the eighth is none",
         .bytes = packets_without_sync(20, 7),
         .want = false,
         .want_position = 1},
        {.name = "the second is none",
         .bytes = packets_without_sync(20, 1),
         .want = false,
         .want_position = 1},
        {.name = "the ninth is none",
         .bytes = packets_without_sync(20, 8),
         .want = true,
         .want_position = 0},
        {.name = "the second is none, and one byte short",
         .bytes = cut_to(packets_without_sync(2, 1), 2 * packet_bytes - 1),
         .want = true,
         .want_position = 0},
        {.name = "the last of three is none",
         .bytes = packets_without_sync(3, 2),
         .want = false,
         .want_position = 1},
    };
    for (const sync_case& c : cases) {
        SCOPED_TRACE(c.name);
        const sliding_window_v4_ptr window = window_with(c.bytes);
        EXPECT_EQ(synchronise(window.get()), c.want);
        EXPECT_EQ(window->data - window->buffer, c.want_position);
    }
}

// Is standard input while it lives.
class standard_input
{
public:
    explicit standard_input(int fd) : before_(dup(STDIN_FILENO))
    {
        EXPECT_EQ(dup2(fd, STDIN_FILENO), STDIN_FILENO);
        close(fd);
    }
    ~standard_input()
    {
        dup2(before_, STDIN_FILENO);
        close(before_);
    }
    standard_input(const standard_input&) = delete;
    standard_input& operator=(const standard_input&) = delete;

private:
    int before_;
};

// Standard input is a pipe, or a socket of datagrams, in which each of these stands.
class filled_input
{
public:
    explicit filled_input(std::array<int, 2> ends, std::initializer_list<byte_string> writes)
        : ours_(ends[1]), input_(ends[0])
    {
        for (const byte_string& bytes : writes)
            EXPECT_EQ(write(ours_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    ~filled_input() { end(); }
    filled_input(const filled_input&) = delete;
    filled_input& operator=(const filled_input&) = delete;

    void end()
    {
        if (ours_ >= 0)
            close(ours_);
        ours_ = -1;
    }

private:
    int ours_;
    standard_input input_;
};

// With O_DIRECT each write is read on its own.
std::array<int, 2> pipe_ends(int flags = 0)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), flags), 0);
    return ends;
}

std::array<int, 2> small_pipe_ends()
{
    const std::array<int, 2> ends = pipe_ends();
    EXPECT_GE(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
    return ends;
}

std::array<int, 2> datagram_ends()
{
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()), 0);
    return ends;
}

int file_of(const byte_string& bytes)
{
    const int fd = memfd_create("input", 0);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    lseek(fd, 0, SEEK_SET);
    return fd;
}

byte_string buffered(const sliding_window_v4_ptr& window)
{
    return {window->data, window->end};
}

TEST(RefillUntil, ReadsNothingWhenEnoughIsBuffered)
{
    const filled_input input(pipe_ends(), {null_packets(9)});
    const sliding_window_v4_ptr window = window_with(null_packets(4));
    PIDmap pm;
    pipe_pace pace;
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 4 * packet_bytes));
    EXPECT_FALSE(pm.eof);
    EXPECT_EQ(buffered(window), null_packets(4));
}

TEST(RefillUntil, TakesAllThatStandsInAPipe)
{
    const filled_input input(pipe_ends(), {null_packets(9), counting_bytes(7)});
    const sliding_window_v4_ptr window = window_with(null_packets(4));
    PIDmap pm;
    pipe_pace pace;
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 4 * packet_bytes + 1));
    EXPECT_EQ(buffered(window), concat({null_packets(13), counting_bytes(7)}));
}

TEST(RefillUntil, ReadsOnUntilEnoughIsThereAndNoFurther)
{
    const filled_input input(pipe_ends(O_DIRECT),
                             {null_packets(1), null_packets(1), null_packets(1), null_packets(1)});
    const sliding_window_v4_ptr window = window_with({});
    PIDmap pm;
    pipe_pace pace;
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 2 * packet_bytes + 1));
    EXPECT_FALSE(pm.eof);
    EXPECT_EQ(buffered(window), null_packets(3));
}

TEST(RefillUntil, FillsTheWindowFromAFile)
{
    const sliding_window_v4_ptr window = window_with({});
    const auto capacity = sliding_window_v4_alloc_length(window.get());
    const byte_string bytes = null_packets(capacity / packet_bytes + 2);
    const standard_input input(file_of(bytes));
    PIDmap pm;
    pipe_pace pace;
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 1));
    EXPECT_EQ(buffered(window), cut_to(bytes, capacity));
}

TEST(RefillUntil, TakesADatagramWhole)
{
    const filled_input input(datagram_ends(), {null_packets(7), null_packets(7), null_packets(7)});
    const sliding_window_v4_ptr window = window_with({});
    PIDmap pm;
    pipe_pace pace;
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 7 * packet_bytes + 1));
    EXPECT_EQ(buffered(window), null_packets(14));
}

TEST(RefillUntil, FailsAtTheEndKeepsTheBytesAndReadsNothingMore)
{
    const sliding_window_v4_ptr window = window_with(null_packets(1));
    PIDmap pm;
    pipe_pace pace;
    {
        filled_input input(pipe_ends(), {null_packets(3)});
        input.end();
        EXPECT_FALSE(refill_until(window.get(), pm, pace, 5 * packet_bytes));
        EXPECT_TRUE(pm.eof);
    }
    const filled_input more(pipe_ends(), {null_packets(9)});
    EXPECT_FALSE(refill_until(window.get(), pm, pace, 5 * packet_bytes));
    EXPECT_EQ(buffered(window), null_packets(4));
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 4 * packet_bytes));
}

TEST(RefillUntil, TakesAnInputThatCannotBeReadForOneThatHasEnded)
{
    const standard_input input(open("/", O_RDONLY));
    const sliding_window_v4_ptr window = window_with({});
    PIDmap pm;
    pipe_pace pace;
    EXPECT_FALSE(refill_until(window.get(), pm, pace, 1));
    EXPECT_TRUE(pm.eof);
}

// A pause can be told by what it teaches: the first is of 8 ms, and one that brings too little is
// doubled, one that finds too much is halved.
constexpr int first_pause_ms = 8;

int pause_after_refill(pipe_pace pace = {})
{
    const sliding_window_v4_ptr window = window_with({});
    PIDmap pm;
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 1));
    return pace.pause_ms;
}

TEST(RefillUntil, PausesWhereLittleStandsInAPipe)
{
    const filled_input input(pipe_ends(), {null_packets(1)});
    EXPECT_EQ(pause_after_refill(), 2 * first_pause_ms);
}

TEST(RefillUntil, ReadsAPipeAtOnceThatHoldsABatch)
{
    const filled_input input(pipe_ends(), {null_packets(240)});
    EXPECT_EQ(pause_after_refill(), first_pause_ms);
}

TEST(RefillUntil, ReadsSmallPipesFilesAndDatagramsAtOnce)
{
    {
        const filled_input input(small_pipe_ends(), {null_packets(1)});
        EXPECT_EQ(pause_after_refill(), first_pause_ms);
    }
    {
        const filled_input input(datagram_ends(), {null_packets(1)});
        EXPECT_EQ(pause_after_refill(), first_pause_ms);
    }
    const standard_input input(file_of(null_packets(1)));
    EXPECT_EQ(pause_after_refill(), first_pause_ms);
}

TEST(RefillUntil, CountsWhatIsReadOfAFastSource)
{
    const filled_input input(pipe_ends(O_DIRECT), {null_packets(1), null_packets(1)});
    const sliding_window_v4_ptr window = window_with({});
    PIDmap pm;
    pipe_pace pace{.unpaused_bytes = 2 * packet_bytes + 1};
    EXPECT_TRUE(refill_until(window.get(), pm, pace, 2 * packet_bytes));
    EXPECT_EQ(pace.unpaused_bytes, 1u);
    EXPECT_EQ(pace.pause_ms, first_pause_ms);
}

} // namespace
