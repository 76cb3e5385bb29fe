#include "tools/captions/picture_order.hpp"

#include <gtest/gtest.h>

namespace
{

std::vector<int64_t> times_of(picture_order& order)
{
    std::vector<int64_t> times;
    for (const captioned_picture& picture : order.ready)
        times.push_back(picture.presentation);
    order.ready.clear();
    return times;
}

captioned_picture picture(int64_t presentation, int64_t decoding)
{
    return {.presentation = presentation, .decoding = decoding, .pairs = {}};
}

using times = std::vector<int64_t>;

TEST(PictureOrder, WithoutBPicturesNoneWaits)
{
    picture_order order;
    for (const int64_t at : {10, 20, 30}) {
        order.add(picture(at, at));
        EXPECT_EQ(times_of(order), times{at});
    }
}

// I0 P3 B1 B2 P6 B4 B5, each decoded one frame after the other.
TEST(PictureOrder, BPicturesComeInOrderOfDisplay)
{
    picture_order order;
    times got;
    int64_t decoding = 0;
    for (const int64_t at : {10, 40, 20, 30, 70, 50, 60}) {
        order.add(picture(at, decoding));
        for (const int64_t time : times_of(order)) {
            EXPECT_LE(time, decoding);
            got.push_back(time);
        }
        decoding += 10;
    }
    EXPECT_EQ(got, (times{10, 20, 30, 40, 50, 60}));
    order.finish();
    EXPECT_EQ(times_of(order), times{70});
}

TEST(PictureOrder, PicturesOfOneTimeKeepTheirOrder)
{
    picture_order order;
    for (const uint8_t field : {uint8_t{1}, uint8_t{2}}) {
        captioned_picture half = picture(40, 20);
        half.pairs.push_back({.type = cc_type::field_1, .first = field, .second = 0});
        order.add(std::move(half));
    }
    order.add(picture(50, 40));
    ASSERT_EQ(order.ready.size(), 2U);
    EXPECT_EQ(order.ready[0].pairs[0].first, 1);
    EXPECT_EQ(order.ready[1].pairs[0].first, 2);
}

TEST(PictureOrder, WrongTimesDoNotPileUp)
{
    picture_order order;
    for (int64_t i = 0; i < 1000; ++i)
        order.add(picture(1'000'000 - i, 0));
    EXPECT_EQ(order.waiting.size(), most_waiting_pictures);
    EXPECT_EQ(order.ready.size(), 1000 - most_waiting_pictures);
}

} // namespace
