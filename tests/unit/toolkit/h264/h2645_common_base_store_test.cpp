#include "toolkit/h264/h2645_common_base_store.hpp"

#include <gtest/gtest.h>

#include "toolkit/h264/h264_nal_pps.hpp"
#include "toolkit/h264/h264_nal_sps.hpp"

namespace tremsa
{

namespace
{

TEST(BaseStore, IsEmptyAtFirst)
{
    const h2645_common_base_store<h264_nal_sps> sps;
    EXPECT_EQ(sps.last_id, 0xFFFFFFFFu);
    EXPECT_TRUE(sps.sets.empty());
    const h2645_common_base_store<h264_nal_pps> pps;
    EXPECT_EQ(pps.last_id, 0xFFFFFFFFu);
    EXPECT_TRUE(pps.sets.empty());
}

TEST(BaseStore, KeepsOneSetPerIdentifier)
{
    h2645_common_base_store<h264_nal_sps> store;
    h264_nal_sps sps;
    sps.offset_for_ref_frame = {1, 2, 3};
    store.sets[4] = sps;
    sps.offset_for_ref_frame = {7};
    store.sets[0] = sps;
    EXPECT_EQ(store.sets.begin()->first, 0u);
    EXPECT_EQ(store.sets[4].offset_for_ref_frame.size(), 3u); // a copy of its own
    store.sets[4] = sps;
    EXPECT_EQ(store.sets.size(), 2u);
    EXPECT_EQ(store.sets[4].offset_for_ref_frame.size(), 1u);
}

} // namespace

} // namespace tremsa
