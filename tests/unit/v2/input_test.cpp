#include "v2/input.hpp"

#include <algorithm>
#include <string_view>

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

// A request that the buffered bytes satisfy reads nothing, so standard input does not matter here.
TEST(RefillUntil, ReadsNothingWhenEnoughIsBuffered)
{
    const sliding_window_v4_ptr window = window_with(null_packets(4));
    PIDmap pm;
    EXPECT_TRUE(refill_until(window.get(), pm, 4 * packet_bytes));
    EXPECT_FALSE(pm.eof);
    EXPECT_EQ(window->end - window->data, 4 * 188);
}

TEST(RefillUntil, KeepsFailingAfterTheEndAndKeepsTheBytes)
{
    const sliding_window_v4_ptr window = window_with(null_packets(4));
    PIDmap pm;
    pm.eof = true;
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(refill_until(window.get(), pm, 5 * packet_bytes));
        EXPECT_EQ(byte_string(window->data, window->end), null_packets(4));
    }
    EXPECT_TRUE(refill_until(window.get(), pm, 4 * packet_bytes));
}

} // namespace
