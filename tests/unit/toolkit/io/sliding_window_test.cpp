#include "toolkit/io/sliding_window.hpp"

#include <array>
#include <csignal>
#include <cstring>
#include <tuple>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include "tests/support/bytes.hpp"

namespace
{

constexpr uint64_t whole_window = 8388608; // as the program asks for

sliding_window_v4_ptr make_window(uint64_t capacity)
{
    return sliding_window_v4_ptr(sliding_window_v4_create_buffer(capacity));
}

class SlidingWindow : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(pipe2(pipe_.data(), O_CLOEXEC), 0); }

    void TearDown() override
    {
        close(pipe_[0]);
        end_input();
    }

    void end_input()
    {
        if (pipe_[1] >= 0)
            close(pipe_[1]);
        pipe_[1] = -1;
    }

    void send(const byte_string& bytes) const
    {
        ASSERT_EQ(write(pipe_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    int64_t refill(uint64_t limit = 0) const
    {
        return sliding_window_v4_refill_from_fd(window.get(), pipe_[0], limit);
    }

    [[nodiscard]] byte_string buffered() const { return {window->data, window->end}; }

    sliding_window_v4_ptr window = make_window(1000);
    std::array<int, 2> pipe_{-1, -1};
};

TEST_F(SlidingWindow, IsCreatedEmpty)
{
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(sliding_window_v4_alloc_length(window.get()), 1000u);
    EXPECT_EQ(window->data, window->buffer);
    EXPECT_EQ(window->end, window->buffer);
    EXPECT_EQ(window->buffer_fence, window->buffer + 1000);
}

TEST_F(SlidingWindow, RefillAppendsWhatOneReadGives)
{
    send(counting_bytes(100));
    EXPECT_EQ(refill(), 100);
    EXPECT_EQ(buffered(), counting_bytes(100));

    send(counting_bytes(50, 100));
    EXPECT_EQ(refill(), 50);
    EXPECT_EQ(buffered(), counting_bytes(150));
}

TEST_F(SlidingWindow, RefillReadsNoMoreThanItsLimit)
{
    send(counting_bytes(100));
    EXPECT_EQ(refill(30), 30);
    EXPECT_EQ(refill(0), 70);
    EXPECT_EQ(buffered(), counting_bytes(100));
}

TEST_F(SlidingWindow, RefillReadsNoMoreThanFits)
{
    send(counting_bytes(1500));
    EXPECT_EQ(refill(), 1000);
    EXPECT_EQ(window->end, window->buffer_fence);
    EXPECT_EQ(refill(), 0) << "a full window is not the end of the input";
    EXPECT_EQ(refill(10), 0);

    window->data += 900;
    sliding_window_v4_lazy_flush(window.get());
    EXPECT_EQ(refill(), 500);
    EXPECT_EQ(buffered(), counting_bytes(600, static_cast<uint8_t>(900 % 256)));
}

TEST_F(SlidingWindow, EndOfInputIsNegativeAgainAndAgainAndKeepsTheBytes)
{
    send(counting_bytes(10));
    end_input();
    EXPECT_EQ(refill(), 10);
    EXPECT_LT(refill(), 0);
    EXPECT_LT(refill(), 0);
    EXPECT_EQ(buffered(), counting_bytes(10));
}

TEST_F(SlidingWindow, AReadErrorIsNegative)
{
    EXPECT_LT(sliding_window_v4_refill_from_fd(window.get(), -1, 0), 0);
    EXPECT_LT(sliding_window_v4_refill_from_fd(window.get(), pipe_[1], 0), 0)
        << "the writing end cannot be read";
    EXPECT_EQ(window->end, window->buffer);
}

TEST_F(SlidingWindow, ReadsARegularFileToItsEnd)
{
    const int fd = memfd_create("input", MFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    const byte_string bytes = counting_bytes(700);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), 700);
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    EXPECT_EQ(sliding_window_v4_refill_from_fd(window.get(), fd, 0), 700);
    EXPECT_LT(sliding_window_v4_refill_from_fd(window.get(), fd, 0), 0);
    EXPECT_EQ(buffered(), bytes);
    close(fd);
}

// Set by the test that waits for a signal, for its handler.
int alarm_writes_to = -1;
volatile sig_atomic_t alarms = 0;

void on_alarm(int /*signal*/)
{
    alarms = alarms + 1;
    if (alarm_writes_to >= 0)
        std::ignore = write(alarm_writes_to, "late", 4); // the test sees the bytes or fails
}

// Has SIGALRM interrupt system calls while it lives: once, or again and again.
class alarm_clock
{
public:
    enum class repeat { once, until_destroyed };

    alarm_clock(repeat repeating, int write_to)
    {
        alarm_writes_to = write_to;
        alarms = 0;
        struct sigaction action = {};
        action.sa_handler = on_alarm; // and no SA_RESTART
        sigaction(SIGALRM, &action, &before_);
        const timeval step{.tv_sec = 0, .tv_usec = 2000};
        const timeval never{.tv_sec = 0, .tv_usec = 0};
        set({.it_interval = repeating == repeat::once ? never : step, .it_value = step});
    }
    ~alarm_clock()
    {
        set({});
        sigaction(SIGALRM, &before_, nullptr);
    }
    alarm_clock(const alarm_clock&) = delete;
    alarm_clock& operator=(const alarm_clock&) = delete;

private:
    static void set(itimerval timer) { setitimer(ITIMER_REAL, &timer, nullptr); }

    struct sigaction before_ = {};
};

TEST_F(SlidingWindow, AnInterruptedReadGivesNothingAndIsNoEnd)
{
    const alarm_clock interrupting(alarm_clock::repeat::until_destroyed, -1);
    EXPECT_EQ(refill(), 0) << "nothing is ever sent, so only the signal can end the read";
    EXPECT_GE(alarms, 1);
    EXPECT_EQ(window->end, window->buffer);
}

TEST_F(SlidingWindow, ANonBlockingInputIsWaitedForWithoutSpinning)
{
    ASSERT_EQ(fcntl(pipe_[0], F_SETFL, O_NONBLOCK), 0);
    const alarm_clock sending(alarm_clock::repeat::once, pipe_[1]);
    int calls = 1;
    int64_t got = refill();
    for (; got == 0; calls++)
        got = refill();
    EXPECT_EQ(got, 4);
    EXPECT_EQ(buffered(), bytes_of("late"));
    // At the most: interrupted by the signal, then told that it is readable, then read.
    EXPECT_LE(calls, 3);
}

TEST_F(SlidingWindow, ANonBlockingInputThatEndsIsAtItsEnd)
{
    ASSERT_EQ(fcntl(pipe_[0], F_SETFL, O_NONBLOCK), 0);
    end_input();
    EXPECT_LT(refill(), 0);
}

// Buffers `count` counting bytes and consumes all but the last `kept`.
void fill_and_consume(sliding_window_v4& window, size_t count, size_t kept)
{
    const byte_string bytes = counting_bytes(count);
    std::memcpy(window.end, bytes.data(), count);
    window.end += count;
    window.data = window.end - kept;
}

TEST_F(SlidingWindow, FlushLeavesTheBytesWhereTheyAreWhileAQuarterIsFree)
{
    fill_and_consume(*window, 1000, 250);
    const uint8_t* const data = window->data;
    sliding_window_v4_lazy_flush(window.get());
    EXPECT_EQ(window->data, data);
    EXPECT_EQ(window->end, window->buffer_fence);
}

TEST_F(SlidingWindow, FlushMovesTheUnreadBytesToTheFrontWhenLessThanAQuarterIsFree)
{
    fill_and_consume(*window, 1000, 249);
    const byte_string unread = buffered();
    sliding_window_v4_lazy_flush(window.get());
    EXPECT_EQ(window->data, window->buffer);
    EXPECT_EQ(window->end, window->buffer + 249);
    EXPECT_EQ(buffered(), unread);
}

TEST_F(SlidingWindow, FlushOfAnEmptyConsumedWindowFreesAllOfIt)
{
    fill_and_consume(*window, 1000, 0);
    sliding_window_v4_lazy_flush(window.get());
    EXPECT_EQ(window->data, window->buffer);
    EXPECT_EQ(window->end, window->buffer);
}

// Wherever the read pointer stands, the largest requests of a run fit behind it after a flush.
TEST(SlidingWindowOfARun, HasRoomForEveryRequestAfterAFlush)
{
    const sliding_window_v4_ptr window = make_window(whole_window);
    ASSERT_NE(window, nullptr);
    const uint64_t largest_request = 2097152;
    for (uint64_t consumed = 0; consumed <= whole_window; consumed += 188 * 1009) {
        SCOPED_TRACE(consumed);
        window->data = window->buffer + consumed;
        window->end = window->data;
        sliding_window_v4_lazy_flush(window.get());
        EXPECT_GE(static_cast<uint64_t>(window->buffer_fence - window->data), largest_request);
    }
}

// A live input arrives in small pieces, and every pass keeps the look-ahead unread.
TEST(SlidingWindowOfARun, MovesLessThanAQuarterOfTheBytesItTakesIn)
{
    const uint64_t look_ahead = 1540096;
    const uint64_t request = look_ahead + 3008;
    const int zeros = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(zeros, 0);
    for (const uint64_t piece : {uint64_t{65536}, uint64_t{4096}}) {
        SCOPED_TRACE(piece);
        const sliding_window_v4_ptr window = make_window(whole_window);
        ASSERT_NE(window, nullptr);
        const auto unread = [&window] {
            return static_cast<uint64_t>(window->end - window->data);
        };

        uint64_t moved = 0;
        uint64_t consumed = 0;
        while (consumed < 8 * whole_window) {
            const uint8_t* const data = window->data;
            sliding_window_v4_lazy_flush(window.get());
            if (window->data != data)
                moved += unread();
            while (unread() < request)
                ASSERT_GT(sliding_window_v4_refill_from_fd(window.get(), zeros, piece), 0);
            const uint64_t packets = (unread() - look_ahead) / 188;
            window->data += packets * 188;
            consumed += packets * 188;
        }
        EXPECT_GT(moved, 0u);
        EXPECT_LT(4 * moved, consumed);
    }
    close(zeros);
}

} // namespace
