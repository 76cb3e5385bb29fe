#include "tools/ts_prepare/cut_watch.hpp"

#include <gtest/gtest.h>

#include "tests/support/h264_access_unit.hpp"
#include "tests/support/mpeg_video_builder.hpp"
#include "tests/support/packetiser.hpp"
#include "tests/support/pes_builder.hpp"

namespace
{

constexpr uint16_t pid = 0x100;

constexpr uint8_t mpeg2_video = 0x02;
constexpr uint8_t h264_video = 0x1B;
constexpr uint8_t aac_audio = 0x0F;
constexpr uint8_t hevc_video = 0x24;

class watched
{
public:
    explicit watched(std::vector<programme_stream> streams) { watch_streams(watch_, streams); }

    // Takes one PES packet; how many of its packets may end a fragment.
    size_t pes(const byte_string& payload, uint16_t on_pid = pid)
    {
        byte_string packets =
            packets_.pes(on_pid, build_pes({.pts = 900000, .dts = 896400, .payload = payload}));
        size_t count = 0;
        for (size_t at = 0; at < packets.size(); at += packet_bytes) {
            mpeg_ts_packet pkt;
            EXPECT_NE(mpeg_ts_decode(pkt, packets.data() + at, packet_bytes), 0);
            count += may_cut(watch_, pkt) ? 1 : 0;
        }
        return count;
    }

private:
    cut_watch watch_;
    packetiser packets_;
};

byte_string h264_picture(size_t sei_bytes, uint64_t nal_unit_type, uint64_t slice_type,
                         uint64_t first_mb = 0)
{
    return concat({h264_access_unit_delimiter(), h264_sei_unit(sei_bytes),
                   h264_slice_unit({.nal_unit_type = nal_unit_type,
                                    .first_mb_in_slice = first_mb,
                                    .slice_type = slice_type,
                                    .slice_data_bytes = 600})});
}

TEST(CutWatch, SeesKeyframesOfVideo)
{
    struct test_case {
        const char* name;
        uint8_t stream_type;
        byte_string picture;
        size_t want;
    };
    const byte_string slice = build_slice(1, 400);
    const byte_string i = build_picture_header({.picture_coding_type = i_picture});
    const byte_string p = build_picture_header({.picture_coding_type = p_picture});
    const byte_string later_i =
        build_picture_header({.temporal_reference = 2, .picture_coding_type = i_picture});
    const test_case cases[] = {
        {"H.264 IDR picture with its parameter sets", h264_video, h264_keyframe({}, 600), 1},
        {"H.264 I picture that is no IDR", h264_video, h264_picture(20, 1, 7), 1},
        {"H.264 picture that begins with an I slice", h264_video, h264_picture(20, 1, 2), 1},
        {"H.264 SI picture", h264_video, h264_picture(20, 1, 9), 1},
        {"H.264 P picture", h264_video, h264_p_picture(600), 0},
        {"H.264 B picture", h264_video, h264_picture(20, 1, 6), 0},
        {"H.264 I picture whose slice comes packets later", h264_video, h264_picture(700, 1, 7), 1},
        {"H.264 P picture whose slice comes packets later", h264_video, h264_picture(700, 1, 5), 0},
        {"MPEG-2 sequence", mpeg2_video, concat({build_sequence_header({}), i, slice}), 1},
        {"MPEG-2 group", mpeg2_video, concat({build_group_header({}), p, slice}), 1},
        {"MPEG-2 I-picture alone", mpeg2_video, concat({i, slice}), 1},
        {"MPEG-2 I-picture that is shown later", mpeg2_video, concat({later_i, slice}), 0},
        {"MPEG-2 P-picture", mpeg2_video, concat({p, slice}), 0},
    };
    for (const test_case& c : cases) {
        SCOPED_TRACE(c.name);
        watched stream(
            {{.stream_type = aac_audio, .pid = 0x101}, {.stream_type = c.stream_type, .pid = pid}});
        for (int n = 0; n < 3; n++)
            EXPECT_EQ(stream.pes(c.picture), c.want);
        EXPECT_EQ(stream.pes({1, 2, 3}, 0x101), 0U);
    }
}

TEST(CutWatch, TakesAPictureWhoseKindItCannotSeeForAKeyframe)
{
    watched stream({{.stream_type = h264_video, .pid = pid}});
    EXPECT_EQ(stream.pes(h264_picture(300, 1, 5, 1)), 0U); // the first slice is missing
    EXPECT_EQ(stream.pes(h264_p_picture(600)), 1U);
    EXPECT_EQ(stream.pes(h264_p_picture(600)), 0U);
}

TEST(CutWatch, SeesEverySoundWhereThereIsNoVideoThatIsTaken)
{
    watched stream(
        {{.stream_type = hevc_video, .pid = pid}, {.stream_type = aac_audio, .pid = 0x101}});
    EXPECT_EQ(stream.pes(byte_string(500, 7), 0x101), 1U);
    EXPECT_EQ(stream.pes(byte_string(500, 7), 0x101), 1U);
    EXPECT_EQ(stream.pes(byte_string(500, 7)), 0U);
}

TEST(CutWatch, SeesNothingWhereNothingIsTaken)
{
    watched stream({{.stream_type = hevc_video, .pid = pid}});
    EXPECT_EQ(stream.pes(byte_string(500, 7)), 0U);
}

TEST(CutWatch, ReadsPacketsWithoutRoomForAHeader)
{
    cut_watch watch;
    const programme_stream video{.stream_type = h264_video, .pid = pid};
    watch_streams(watch, {&video, 1});
    for (size_t stuffing = 170; stuffing <= 181; stuffing++) {
        byte_string packet = build_ts_packet({.payload_unit_start = true,
                                              .pid = pid,
                                              .adaptation = adaptation_fields{.stuffing = stuffing},
                                              .payload = {0, 0, 1, 0xE0, 0, 0, 0x80, 0, 0, 0, 0}});
        mpeg_ts_packet pkt;
        ASSERT_NE(mpeg_ts_decode(pkt, packet.data(), packet_bytes), 0);
        EXPECT_EQ(may_cut(watch, pkt), stuffing != 170); // the one before stayed undecided
    }
}

} // namespace
