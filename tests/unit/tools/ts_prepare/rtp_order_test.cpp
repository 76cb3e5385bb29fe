#include "tools/ts_prepare/rtp_order.hpp"

#include <gtest/gtest.h>

#include "toolkit/ts/ts_packet.hpp"

namespace
{

// Datagrams of one packet that holds their sequence number; the order in which they come out.
class order_of_datagrams
{
public:
    void come(const std::vector<uint16_t>& sequence_numbers, uint32_t ssrc = 1)
    {
        for (const uint16_t n : sequence_numbers) {
            take();
            while (is_beyond_window(order, n, ssrc)) {
                skip_missing(order);
                take();
            }
            const rtp_fate fate = begin_datagram(order, n, ssrc, now_us);
            std::vector<uint8_t> packet(ts_packet_bytes);
            packet[0] = static_cast<uint8_t>(n >> 8);
            packet[1] = static_cast<uint8_t>(n);
            if (fate == rtp_fate::pass)
                out.push_back(n);
            else if (fate == rtp_fate::keep)
                keep_packet(order, packet.data());
        }
        take();
    }

    void take()
    {
        std::vector<uint8_t> packets;
        while (take_ordered_datagram(order, packets))
            out.push_back(static_cast<uint16_t>(packets[0] << 8 | packets[1]));
    }

    rtp_order order;
    std::vector<uint16_t> out;
    int64_t now_us = 0;
};

using numbers = std::vector<uint16_t>;

TEST(RtpOrder, PutsDatagramsInOrder)
{
    order_of_datagrams got;
    got.come({65533, 65535, 65534, 2, 0, 1, 3});
    EXPECT_EQ(got.out, (numbers{65533, 65534, 65535, 0, 1, 2, 3}));
    EXPECT_EQ(got.order.reordered, 2U);
    EXPECT_EQ(got.order.lost, 0U);
}

TEST(RtpOrder, LeavesOutWhatComesTwice)
{
    order_of_datagrams got;
    got.come({1, 2, 2, 4, 4, 3, 1, 5});
    EXPECT_EQ(got.out, (numbers{1, 2, 3, 4, 5}));
    EXPECT_EQ(got.order.duplicates, 3U);
}

TEST(RtpOrder, GivesUpWhatIsMissingWhenTheWindowIsFull)
{
    order_of_datagrams got;
    numbers come{0};
    numbers want{0};
    for (uint16_t n = 3; n < 3 + rtp_window; n++) {
        come.push_back(n);
        want.push_back(n);
    }
    got.come(come);
    EXPECT_EQ(got.out, want);
    EXPECT_EQ(got.order.lost, 2U);
}

TEST(RtpOrder, GivesUpAfterAWhile)
{
    order_of_datagrams got;
    got.come({0, 2});
    EXPECT_FALSE(waited_too_long(got.order, rtp_longest_wait_us - 1));
    EXPECT_TRUE(waited_too_long(got.order, rtp_longest_wait_us));
    skip_missing(got.order);
    got.take();
    EXPECT_EQ(got.out, (numbers{0, 2}));
    EXPECT_EQ(got.order.lost, 1U);
    EXPECT_FALSE(waited_too_long(got.order, rtp_longest_wait_us));
}

// Two roads of different length: something always waits, but nothing for long.
TEST(RtpOrder, GivesNothingUpWhereEachWaitIsShort)
{
    order_of_datagrams got;
    got.come({0, 2, 4});
    for (uint16_t n = 1; n < 400; n += 2) {
        got.now_us += 10'000;
        got.come({n});
        EXPECT_FALSE(waited_too_long(got.order, got.now_us)) << n;
        got.come({static_cast<uint16_t>(n + 5)});
    }
    EXPECT_EQ(got.order.lost, 0U);
    EXPECT_EQ(got.order.duplicates, 0U);
    EXPECT_EQ(got.out.size(), 401U);
}

TEST(RtpOrder, LetsNothingOfADoubledDatagramThroughWhenTheFirstOneIsReleased)
{
    order_of_datagrams got;
    got.come({0, 2, 2});
    skip_missing(got.order);
    got.take();
    EXPECT_EQ(got.order.fate, rtp_fate::drop);
}

TEST(RtpOrder, LetsTheRestOfAReleasedDatagramFollow)
{
    order_of_datagrams got;
    got.come({0, 2});
    skip_missing(got.order);
    got.take();
    EXPECT_EQ(got.order.fate, rtp_fate::pass);
}

TEST(RtpOrder, BeginsAnewWithASourceThatGoesBackALittle)
{
    order_of_datagrams got;
    got.come({1000});
    for (uint16_t n = 0; n < rtp_window + 3; n++)
        got.come({n});
    EXPECT_EQ(got.out, (numbers{1000, rtp_window, rtp_window + 1, rtp_window + 2}));
    EXPECT_EQ(got.order.duplicates, rtp_window);
}

TEST(RtpOrder, CountsAGapBeyondTheWindow)
{
    order_of_datagrams got;
    got.come({0, 1000, 1001});
    EXPECT_EQ(got.out, (numbers{0, 1000, 1001}));
    EXPECT_EQ(got.order.lost, 999U);
}

TEST(RtpOrder, BeginsAnewWithAnotherSource)
{
    order_of_datagrams got;
    got.come({10, 12});
    got.come({500, 501}, 2);
    got.come({40000, 40001}, 2);
    EXPECT_EQ(got.out, (numbers{10, 12, 500, 501, 40000, 40001}));
    EXPECT_EQ(got.order.lost, 1U);
}

} // namespace
