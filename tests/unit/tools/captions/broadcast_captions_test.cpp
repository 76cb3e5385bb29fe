// Whole transport streams, of which every byte is made here.

#include "tools/captions/broadcast_captions.hpp"

#include <array>
#include <optional>

#include <gtest/gtest.h>

#include "tests/support/caption_data.hpp"
#include "tests/support/h264_access_unit.hpp"
#include "tests/support/mpeg_video_builder.hpp"
#include "tests/support/stream_builder.hpp"
#include "tests/support/teletext_builder.hpp"

namespace
{

constexpr int64_t frame = 3003;

byte_string h264_picture(const std::vector<caption_bytes>& pairs)
{
    return concat({build_caption_sei({build_a53_user_data(pairs)}), h264_p_picture(400)});
}

// A frame of it lasts 3003 ticks.
h264_sps_fields timed_sequence()
{
    h264_sps_fields sequence;
    sequence.vui.emplace();
    sequence.vui->timing = {.num_units_in_tick = 1001, .time_scale = 60000};
    return sequence;
}

struct h264_place {
    uint64_t type = 1;  // 5: IDR
    uint64_t order = 0; // pic_order_cnt_lsb
    bool is_reference = true;
    bool is_field = false;
};

byte_string h264_access_unit(const h264_place& place, const std::vector<caption_bytes>& pairs,
                             const h264_sps_fields& sequence = timed_sequence())
{
    const byte_string sets = concat({h264_sps_unit(sequence), h264_pps_unit()});
    return concat({h264_access_unit_delimiter(), place.type == 5 ? sets : byte_string{},
                   build_caption_sei({build_a53_user_data(pairs)}),
                   h264_slice_unit({.nal_ref_idc = place.is_reference ? 1U : 0U,
                                    .nal_unit_type = place.type,
                                    .field_pic_flag = place.is_field,
                                    .pic_order_cnt_lsb = place.order},
                                   sequence)});
}

byte_string mpeg_sequence()
{
    return build_sequence_header({.frame_rate_code = 4}); // 29.97 Hz
}

enum mpeg_structure : uint8_t { top_field = 1, bottom_field = 2, whole_frame = 3 };

// Without the sequence header. The extension is cut off behind the picture's structure.
byte_string mpeg_picture_alone(const std::vector<caption_bytes>& pairs, uint16_t reference,
                               mpeg_structure structure = whole_frame)
{
    return concat({build_picture_header({.temporal_reference = reference}),
                   byte_string{0, 0, 1, 0xB5, 0x8F, 0xFF, static_cast<uint8_t>(0xF0 | structure)},
                   build_mpeg_user_data(build_a53_user_data(pairs)), build_slice(1, 400)});
}

byte_string mpeg_picture(const std::vector<caption_bytes>& pairs, uint16_t reference)
{
    return concat({mpeg_sequence(), mpeg_picture_alone(pairs, reference)});
}

class BroadcastCaptions : public testing::Test
{
public:
    BroadcastCaptions() { want({caption_kind::cea608, 1, "eng"}); }

    void want(const caption_service& service) { captions.tracks.push_back({.service = service}); }

    // Pictures in the order of decoding, one pair in each, at one frame after the other.
    void send(const std::vector<caption_bytes>& pairs)
    {
        for (const caption_bytes& pair : pairs) {
            stream.pes(0x101, {.pts = now & 0x1FFFFFFFF, .payload = h264_picture({pair})});
            now += frame;
        }
    }

    // Times of the stream's clock.
    void expect_one_cue(int64_t start, int64_t end) const
    {
        ASSERT_EQ(captions.tracks[0].cues.size(), 1U);
        EXPECT_EQ(captions.tracks[0].cues[0].start & 0x1FFFFFFFF, start);
        EXPECT_EQ(captions.tracks[0].cues[0].end & 0x1FFFFFFFF, end);
    }

    // A caption that is shown with the next picture but one.
    void caption(std::string_view text)
    {
        send(control_code(0x14, 0x20));
        send(control_code(0x14, 0x2E));
        send(control_code(0x14, 0x70));
        send(letters(text));
        send(control_code(0x14, 0x2F));
    }

    void erase() { send(control_code(0x14, 0x2C)); }

    std::string read(size_t step = 1000)
    {
        byte_string bytes = stream.bytes();
        std::span<uint8_t> rest(bytes);
        while (!rest.empty()) {
            captions.feed(rest.first(std::min(step, rest.size())));
            rest = rest.subspan(std::min(step, rest.size()));
        }
        captions.finish();
        return cues();
    }

    std::string cues()
    {
        std::string all;
        for (caption_track& track : captions.tracks)
            for (const broadcast_cue& cue : track.cues)
                all += track.service.language + " " + cue.text + "\n";
        return all;
    }

    stream_builder stream;
    broadcast_captions captions;
    int64_t now = 900000;
};

TEST_F(BroadcastCaptions, AreTheSameHoweverTheBytesCome)
{
    stream.tables();
    caption("one");
    caption("two");
    erase();
    for (const size_t step : {size_t{1}, size_t{187}, size_t{188}, size_t{65536}}) {
        captions = {};
        want({caption_kind::cea608, 1, "eng"});
        EXPECT_EQ(read(step), "eng one\neng two\n") << step;
        ASSERT_EQ(captions.tracks[0].cues.size(), 2U);
        EXPECT_EQ(captions.tracks[0].cues[0].start & 0x1FFFFFFFF, 900000 + 8 * frame);
        EXPECT_EQ(captions.tracks[0].cues[0].end, captions.tracks[0].cues[1].start);
    }
}

TEST_F(BroadcastCaptions, PicturesOfMpegVideoShareAPesPacket)
{
    stream.pmt.streams[0].stream_type = 0x02;
    stream.tables();
    // I2 B0 B1 in one packet, whose time stamps are those of I2.
    std::vector<caption_bytes> pairs = control_code(0x14, 0x29); // paint on
    pairs.resize(1);
    std::vector<caption_bytes> first = control_code(0x14, 0x70);
    const byte_string payload = concat(
        {mpeg_picture(letters("a"), 2), mpeg_picture(pairs, 0), mpeg_picture({first[0]}, 1)});
    stream.pes(0x101, {.pts = now + 3 * frame, .dts = now, .payload = payload});
    stream.pes(0x101,
               {.pts = now + 6 * frame, .dts = now + 3 * frame, .payload = mpeg_picture({}, 5)});
    stream.pes(0x101, {.pts = now + 9 * frame,
                       .dts = now + 9 * frame,
                       .payload = mpeg_picture(control_code(0x14, 0x2C), 8)});
    EXPECT_EQ(read(), "eng a\n");
    expect_one_cue(now + 3 * frame, now + 9 * frame);
}

TEST_F(BroadcastCaptions, PicturesOfH264ShareAPesPacket)
{
    stream.tables();
    const std::vector<caption_bytes> paint_on = control_code(0x14, 0x29);
    const std::vector<caption_bytes> preamble = control_code(0x14, 0x70);
    // In the order of display: I0 B2 B4 P6, then an IDR picture of the next sequence and its P2.
    stream.pes(0x101, {.pts = now + frame,
                       .dts = now,
                       .payload = concat({h264_access_unit({5, 0}, {paint_on[0]}),
                                          h264_access_unit({1, 6}, letters("c")),
                                          h264_access_unit({1, 2, false}, {preamble[0]}),
                                          h264_access_unit({1, 4, false}, letters("b")),
                                          h264_access_unit({5, 0}, letters("d")),
                                          h264_access_unit({1, 2}, control_code(0x14, 0x2C))})});
    stream.pes(
        0x101,
        {.pts = now + 7 * frame, .dts = now + 6 * frame, .payload = h264_access_unit({1, 4}, {})});
    EXPECT_EQ(read(), "eng bcd\n");
    expect_one_cue(now + 3 * frame, now + 6 * frame);
}

// Packets without time stamps go on behind the one before, and may begin in the middle of a
// picture.
TEST_F(BroadcastCaptions, PicturesOfH264WithoutTimeStampsFollowTheOthers)
{
    stream.tables();
    for (int i = 0; i < 40; ++i, now += frame) // by now, packets are read as far as the first slice
        stream.pes(0x101, {.pts = now, .payload = h264_access_unit({5}, {})});
    const auto send_group = [this](const std::vector<caption_bytes>& of_i,
                                   const std::vector<byte_string>& others) {
        stream.pes(0x101,
                   {.pts = now + frame, .dts = now, .payload = h264_access_unit({5, 0}, of_i)});
        for (const byte_string& payload : others)
            stream.pes(0x101, {.payload = payload});
        now += 4 * frame;
    };
    const byte_string b2 = h264_access_unit({1, 2, false}, {control_code(0x14, 0x70)[0]});
    const auto in_the_slice = b2.end() - 2;
    // In the order of display: I0 B2 B4 P6.
    send_group({}, {h264_access_unit({1, 6}, {})});
    send_group({control_code(0x14, 0x29)[0]}, {h264_access_unit({1, 6}, letters("c")),
                                               {b2.begin(), in_the_slice},
                                               {in_the_slice, b2.end()},
                                               h264_access_unit({1, 4, false}, letters("b"))});
    const int64_t second = now - 4 * frame;
    send_group({control_code(0x14, 0x2C)[0]}, {});
    EXPECT_EQ(read(), "eng bc\n");
    expect_one_cue(second + 3 * frame, second + 5 * frame);
}

TEST_F(BroadcastCaptions, PicturesOfMpegVideoWithoutTimeStampsFollowTheOthers)
{
    stream.pmt.streams[0].stream_type = 0x02;
    stream.tables();
    // In the order of display: B0 B1 I2, P3.
    stream.pes(0x101,
               {.pts = now + 3 * frame, .dts = now, .payload = mpeg_picture(letters("a"), 2)});
    stream.pes(0x101, {.payload = mpeg_picture({control_code(0x14, 0x29)[0]}, 0)});
    stream.pes(0x101, {.payload = mpeg_picture({control_code(0x14, 0x70)[0]}, 1)});
    stream.pes(0x101, {.payload = mpeg_picture({control_code(0x14, 0x2C)[0]}, 3)});
    stream.pes(0x101, {.pts = now + 9 * frame, .payload = mpeg_picture({}, 8)});
    EXPECT_EQ(read(), "eng a\n");
    expect_one_cue(now + 3 * frame, now + 4 * frame);
}

// Once packets of one picture have been the rule, they are read as far as the first slice.
TEST_F(BroadcastCaptions, PicturesMayComeToShareAPesPacket)
{
    stream.tables();
    for (int i = 0; i < 40; ++i, now += frame)
        stream.pes(0x101, {.pts = now, .payload = h264_access_unit({5}, {})});
    const auto send_second = [this](const std::vector<caption_bytes>& pairs) {
        stream.pes(0x101, {.pts = now,
                           .payload = concat(
                               {h264_access_unit({5, 0}, {}), h264_access_unit({1, 2}, pairs)})});
        now += 2 * frame;
    };
    for (int i = 0; i < 40; ++i)
        send_second({});
    const int64_t first = now;
    for (const std::vector<caption_bytes>& code :
         {control_code(0x14, 0x29), control_code(0x14, 0x70), letters("ok"),
          control_code(0x14, 0x2C)})
        send_second({code[0]});
    send_second({});
    EXPECT_EQ(read(), "eng ok\n");
    expect_one_cue(first + 5 * frame, first + 7 * frame);
}

// A group counts its pictures from 0 again.
TEST_F(BroadcastCaptions, GroupOfMpegVideoMayBeginWithoutTimeStamps)
{
    stream.pmt.streams[0].stream_type = 0x02;
    stream.tables();
    const auto picture = [](uint16_t reference, const std::vector<caption_bytes>& pairs) {
        return mpeg_picture_alone(pairs, reference);
    };
    const byte_string group = build_group_header({.closed_gop = false});
    // In the order of display: B0 B1 I2 B3 B4 P5, then B0 B1 I2 of the next group.
    stream.pes(0x101, {.pts = now + 3 * frame,
                       .dts = now,
                       .payload = concat({mpeg_sequence(), group, picture(2, {}), picture(0, {}),
                                          picture(1, {}), picture(5, {}), picture(3, {}),
                                          picture(4, {}), group, picture(2, letters("a"))})});
    stream.pes(0x101, {.payload = picture(0, {control_code(0x14, 0x29)[0]})});
    stream.pes(0x101, {.payload = picture(1, {control_code(0x14, 0x70)[0]})});
    stream.pes(0x101, {.pts = now + 12 * frame,
                       .dts = now + 9 * frame,
                       .payload = picture(5, {control_code(0x14, 0x2C)[0]})});
    EXPECT_EQ(read(), "eng a\n");
    expect_one_cue(now + 9 * frame, now + 12 * frame);
}

// By the time it comes, packets are read as far as the first slice.
TEST_F(BroadcastCaptions, FieldsOfARareH264FrameShareAPesPacket)
{
    h264_sps_fields interlaced = timed_sequence();
    interlaced.frame_mbs_only_flag = false;
    const auto field = [&interlaced](uint64_t order, const std::vector<caption_bytes>& pairs) {
        return h264_access_unit({.order = order, .is_field = true}, pairs, interlaced);
    };
    const auto send_frames = [&](int count) {
        for (; count > 0; --count, now += frame)
            stream.pes(0x101, {.pts = now, .payload = h264_access_unit({5}, {}, interlaced)});
    };
    stream.tables();
    send_frames(40);
    const int64_t first = now;
    for (const std::vector<caption_bytes>& code :
         {control_code(0x14, 0x29), control_code(0x14, 0x70), letters("ok"),
          control_code(0x14, 0x2C)}) {
        stream.pes(0x101, {.pts = now, .payload = concat({field(0, {}), field(1, {code[0]})})});
        now += frame;
        send_frames(4);
    }
    EXPECT_EQ(read(), "eng ok\n");
    expect_one_cue(first + 10 * frame + frame / 2, first + 15 * frame + frame / 2);
}

TEST_F(BroadcastCaptions, FieldsOfARareMpegFrameShareAPesPacket)
{
    stream.pmt.streams[0].stream_type = 0x02;
    const auto send_frames = [this](int count) {
        for (; count > 0; --count, now += frame)
            stream.pes(0x101, {.pts = now, .payload = mpeg_picture({}, 0)});
    };
    stream.tables();
    send_frames(40);
    const int64_t first = now;
    for (const std::vector<caption_bytes>& code :
         {control_code(0x14, 0x29), control_code(0x14, 0x70), letters("ok"),
          control_code(0x14, 0x2C)}) {
        stream.pes(0x101, {.pts = now,
                           .payload = concat({mpeg_picture_alone({}, 0, top_field),
                                              mpeg_picture_alone({code[0]}, 0, bottom_field)})});
        now += frame;
        send_frames(4);
    }
    EXPECT_EQ(read(), "eng ok\n");
    expect_one_cue(first + 10 * frame, first + 15 * frame);
}

TEST_F(BroadcastCaptions, WrapOfTheClockIsNoLeap)
{
    now = (int64_t{1} << 33) - 10 * frame;
    stream.tables();
    caption("one");
    caption("two");
    erase();
    EXPECT_EQ(read(), "eng one\neng two\n");
    const std::deque<broadcast_cue>& all = captions.tracks[0].cues;
    EXPECT_EQ(all[0].end, all[1].start);
    EXPECT_EQ(all[1].end - all[0].start, 12 * frame);
}

TEST_F(BroadcastCaptions, LeapOfTheClockEndsWhatIsShown)
{
    stream.tables();
    caption("one");
    send(letters("...."));
    now += 3600 * 90000;
    send(letters("........"));
    caption("two");
    now -= 7200 * 90000;
    caption("three");
    erase();
    EXPECT_EQ(read(), "eng one\neng two\neng three\n");
    for (const broadcast_cue& cue : captions.tracks[0].cues)
        EXPECT_LT(cue.end - cue.start, 90000);
}

TEST_F(BroadcastCaptions, AnotherVideoStreamBeginsAnew)
{
    stream.tables();
    caption("one");
    const int64_t changed_at = now;
    stream.pmt.streams[0].pid = 0x111;
    stream.tables();
    erase(); // on the old PID
    for (int i = 0; i < 9; ++i, now += frame)
        stream.pes(0x111, {.pts = now, .payload = h264_picture({})});
    EXPECT_EQ(read(), "eng one\n");
    EXPECT_LE(captions.tracks[0].cues[0].end & 0x1FFFFFFFF, changed_at);
}

TEST_F(BroadcastCaptions, LostBytesAreNotBridged)
{
    stream.tables();
    caption("one");
    byte_string bytes = stream.bytes();
    captions.feed(std::span(bytes).first(bytes.size() - 100));
    captions.lose_bytes();
    stream_builder rest;
    std::swap(stream, rest);
    caption("two");
    erase();
    EXPECT_EQ(read(), "eng one\neng two\n");
}

// Sixteen packets of a PID, or a multiple, may be missing.
TEST_F(BroadcastCaptions, LostBytesAreNotBridgedWhereTheCounterFits)
{
    const auto send_long = [this](const std::vector<caption_bytes>& pairs, char letter) {
        std::vector<caption_bytes> all = pairs;
        while (all.size() < 31)
            all.push_back(letters(std::string(2, letter))[0]);
        // Its captions stand in two transport packets.
        stream.pes(0x101, {.pts = now,
                           .payload = concat({h264_sei_unit(100),
                                              build_caption_sei({build_a53_user_data(all)}),
                                              h264_p_picture(400)})});
        now += frame;
    };
    stream.tables();
    const size_t begin = stream.mark();
    send_long({control_code(0x14, 0x29)[0], control_code(0x14, 0x70)[0]}, 'a');
    const size_t pes_bytes = stream.mark() - begin;
    for (int i = 0; i < 16; ++i)
        send_long({}, 'b');
    const size_t end = stream.mark();
    erase();
    byte_string bytes = stream.bytes();
    captions.feed(std::span(bytes).first(begin + 188));
    captions.lose_bytes();
    captions.feed(std::span(bytes).subspan(end - pes_bytes + 188));
    captions.finish();
    const std::string shown = cues();
    EXPECT_NE(shown.find("aaaa"), std::string::npos) << shown;
    EXPECT_EQ(shown.find('b'), std::string::npos) << shown;
}

class BroadcastTeletext : public BroadcastCaptions
{
public:
    uint16_t pid = 0x120;

    void SetUp() override
    {
        if (!teletext_is_built_in)
            GTEST_SKIP() << "built without libzvbi";
        stream.pmt.streams.push_back({.stream_type = 0x06, .pid = pid, .descriptors = {}});
    }

    // From the next picture on, the program map says that these are the pages: language, type and
    // page number.
    void announce(std::span<const uint8_t> pages)
    {
        stream.pes(0x101, {.pts = now & 0x1FFFFFFFF, .payload = h264_picture({})});
        stream.pmt.streams.back().descriptors =
            build_descriptor(0x56, {pages.begin(), pages.end()});
        stream.tables();
    }

    // A picture, and a page with its time and this text.
    void send_page(int page, std::string_view text, std::optional<int64_t> pts)
    {
        std::vector<byte_string> packets = {teletext_header({.page = page})};
        if (!text.empty())
            packets.push_back(teletext_row(page, 20, text));
        packets.push_back(teletext_header({.page = 0x8FF, .erases = false}));
        stream.pes(0x101, {.pts = now & 0x1FFFFFFFF, .payload = h264_picture({})});
        stream.pes(pid, {.stream_id = 0xBD,
                         .length = pes_length::true_length,
                         .pts = pts,
                         .payload = teletext_pes_payload(packets)});
        now += 50 * frame;
    }

    void send_page(int page, std::string_view text) { send_page(page, text, now & 0x1FFFFFFFF); }
};

constexpr std::array<uint8_t, 5> german_888 = {'d', 'e', 'u', 0x10, 0x88};
constexpr std::array<uint8_t, 5> german_850 = {'d', 'e', 'u', 0x10, 0x50};
constexpr std::array<uint8_t, 5> french_889 = {'f', 'r', 'a', 0x28,
                                               0x89}; // for the hard of hearing
constexpr std::array<uint8_t, 5> french_888 = {'f', 'r', 'a', 0x10, 0x88};

TEST_F(BroadcastTeletext, WithoutTimeStampsGoesByThePictures)
{
    want({caption_kind::teletext, 0x888, "deu"});
    announce(german_888);
    send_page(0x888, "one", std::nullopt);
    send_page(0x888, "", std::nullopt);
    EXPECT_EQ(read(), "deu one\n");
    const broadcast_cue& cue = captions.tracks[1].cues.at(0);
    EXPECT_EQ(cue.start & 0x1FFFFFFFF, 900000);
    EXPECT_EQ(cue.end - cue.start, 50 * frame);
}

TEST_F(BroadcastTeletext, WrapOfTheClockIsNoLeap)
{
    now = (int64_t{1} << 33) - 40 * frame;
    want({caption_kind::teletext, 0x888, "deu"});
    announce(german_888);
    send_page(0x888, "one");
    send_page(0x888, "");
    EXPECT_EQ(read(), "deu one\n");
    const broadcast_cue& cue = captions.tracks[1].cues.at(0);
    EXPECT_EQ(cue.end - cue.start, 50 * frame);
    EXPECT_EQ(cue.end & 0x1FFFFFFFF, 10 * frame);
}

// As where the stream has packets of teletext only when a subtitle comes or goes.
TEST_F(BroadcastTeletext, NothingForManySecondsIsNoLeap)
{
    want({caption_kind::teletext, 0x888, "deu"});
    announce(german_888);
    send_page(0x888, "one");
    for (int i = 0; i < 8; ++i, now += 50 * frame)
        stream.pes(0x101, {.pts = now, .payload = h264_picture({})});
    send_page(0x888, "");
    read();
    const std::deque<broadcast_cue>& pieces = captions.tracks[1].cues;
    ASSERT_FALSE(pieces.empty());
    EXPECT_EQ(pieces.back().end - pieces.front().start, 9 * 50 * frame);
}

TEST_F(BroadcastTeletext, ATimeStampFarAheadIsForgottenWithTheNext)
{
    want({caption_kind::teletext, 0x888, "deu"});
    announce(german_888);
    send_page(0x888, "one");
    send_page(0x888, "far", (now + (int64_t{1} << 31)) & 0x1FFFFFFFF);
    const int64_t right = now;
    send_page(0x888, "two");
    send_page(0x888, "");
    read();
    const broadcast_cue& last = captions.tracks[1].cues.back();
    EXPECT_EQ(last.text, "two");
    EXPECT_EQ(last.start & 0x1FFFFFFFF, right);
    EXPECT_EQ(last.end - last.start, 50 * frame);
}

TEST_F(BroadcastTeletext, PageOnAnotherPidBeginsAnew)
{
    want({caption_kind::teletext, 0x888, "deu"});
    announce(german_888);
    send_page(0x888, "one");
    stream.pmt.streams.back().pid = 0x121;
    announce(german_888);
    const int64_t changed_at = now;
    send_page(0x888, "old"); // on the PID that is no longer in the map
    pid = 0x121;
    send_page(0x888, "two");
    send_page(0x888, "");
    EXPECT_EQ(read(), "deu one\ndeu two\n");
    EXPECT_LE(captions.tracks[1].cues.at(0).end & 0x1FFFFFFFF, changed_at);
}

TEST_F(BroadcastTeletext, AnnouncedPagesComeWithoutABreakInOthers)
{
    captions.all_services = true;
    announce(german_888);
    send_page(0x888, "eins");
    announce(concat({german_888, french_889}));
    send_page(0x889, "un");
    send_page(0x888, "");
    send_page(0x889, "");
    EXPECT_EQ(read(), "deu eins\ndeu eins\nfra un\nfra un\n");
    const std::deque<broadcast_cue>& german = captions.tracks[1].cues;
    EXPECT_EQ(german.front().end - german.front().start, longest_cue_ticks); // in pieces
    EXPECT_EQ(german.back().end - german.front().start, 100 * frame);
}

TEST_F(BroadcastTeletext, PageAnnouncedNoMoreEnds)
{
    captions.all_services = true;
    announce(concat({german_888, french_889}));
    send_page(0x888, "eins");
    announce(french_889);
    send_page(0x888, "no subtitles");
    send_page(0x889, "un");
    send_page(0x889, "");
    announce(concat({german_888, french_889}));
    send_page(0x888, "zwei");
    send_page(0x888, "");
    EXPECT_EQ(read(), "deu eins\ndeu zwei\nfra un\n");
    EXPECT_EQ(captions.tracks.size(), 3U);
    EXPECT_LE(captions.tracks[1].cues[0].end & 0x1FFFFFFFF, 900000 + 50 * frame);
}

// As where a region has a page of its own for an hour.
TEST_F(BroadcastTeletext, AnotherPageOfALanguageGoesOnInItsPlace)
{
    captions.all_services = true;
    announce(german_888);
    send_page(0x888, "eins");
    announce(german_850);
    send_page(0x888, "no subtitles");
    send_page(0x850, "zwei");
    send_page(0x850, "");
    EXPECT_EQ(read(), "deu eins\ndeu zwei\n");
    ASSERT_EQ(captions.tracks.size(), 2U);
    EXPECT_EQ(captions.tracks[1].service, (caption_service{caption_kind::teletext, 0x850, "deu"}));
}

TEST_F(BroadcastTeletext, PageInAnotherLanguageIsAnotherTrack)
{
    captions.all_services = true;
    announce(german_888);
    send_page(0x888, "eins");
    announce(french_888);
    send_page(0x888, "deux");
    send_page(0x888, "");
    EXPECT_EQ(read(), "deu eins\nfra deux\n");
}

// What is asked for by name is read whatever the tables say of it.
TEST_F(BroadcastTeletext, NamedPageStaysWhenItIsAnnouncedNoMore)
{
    captions.all_services = true;
    want({caption_kind::teletext, 0x888, "deu"});
    announce(french_888);
    send_page(0x888, "eins");
    announce(french_889);
    send_page(0x888, "zwei");
    send_page(0x888, "");
    EXPECT_EQ(read(), "deu eins\ndeu zwei\n");
}

TEST_F(BroadcastCaptions, ServiceAnnouncedNoMoreEnds)
{
    captions.tracks.clear();
    captions.all_services = true;
    const byte_string english = {0xC1, 'e', 'n', 'g', 0x7E, 0x3F, 0xFF};
    const byte_string spanish = {0xC1, 's', 'p', 'a', 0x7E, 0x3F, 0xFF};
    const auto announce = [this](const byte_string& services) {
        stream.pmt.streams[0].descriptors = build_descriptor(0x86, services);
        stream.tables();
    };
    announce(english);
    caption("one");
    send(letters("..")); // in time to be seen
    announce(spanish);
    caption("dos");
    erase();
    announce({0xC0});
    caption("nobody's");
    erase();
    announce(english);
    caption("two");
    erase();
    EXPECT_EQ(read(), "eng one\neng two\nspa dos\n");
    EXPECT_EQ(captions.tracks.size(), 2U);
}

TEST_F(BroadcastCaptions, CuesThatNobodyTakesDoNotPileUp)
{
    stream.tables();
    caption("one");
    for (size_t i = 0; i < most_kept_cues; ++i) { // each of which ends three pieces of it
        now += 9 * 90000;
        send(letters(".."));
    }
    erase();
    read();
    EXPECT_EQ(captions.tracks[0].cues.size(), most_kept_cues);
    EXPECT_GT(captions.tracks[0].lost, 0U);
}

TEST_F(BroadcastCaptions, TwoTracksMayShareAService)
{
    want({caption_kind::cea608, 1, "und"});
    stream.tables();
    caption("one");
    erase();
    EXPECT_EQ(read(), "eng one\nund one\n");
}

TEST_F(BroadcastCaptions, AllAnnouncedServicesBecomeTracks)
{
    captions.all_services = true;
    const byte_string services = {0xC2, 'e', 'n', 'g',  0x7E, 0x3F, 0xFF,
                                  's',  'p', 'a', 0x7F, 0x3F, 0xFF};
    stream.pmt.streams[0].descriptors = build_descriptor(0x86, services);
    stream.tables(3);
    captions.most_tracks = 2;
    EXPECT_EQ(read(), "");
    ASSERT_EQ(captions.tracks.size(), 2U); // the first was asked for by name already
    EXPECT_EQ(captions.tracks[1].service, (caption_service{caption_kind::cea608, 3, "spa"}));

    stream.pmt.streams[0].descriptors =
        build_descriptor(0x86, {0xC1, 'f', 'r', 'a', 0x7F, 0x3F, 0xFF});
    stream.tables();
    EXPECT_EQ(read(), "");
    EXPECT_EQ(captions.tracks.size(), 2U);
}

} // namespace
