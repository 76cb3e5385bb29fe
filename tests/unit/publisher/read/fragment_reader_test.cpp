#include "publisher/read/fragment_reader.hpp"

#include <gtest/gtest.h>

#include "tests/support/stream_builder.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr int64_t frame = 3600;

// A second of pictures, the first one a keyframe, with audio.
void add_second(stream_builder& stream, int64_t pts, int pictures = 25)
{
    stream.keyframe(pts);
    for (int i = 1; i < pictures; i++)
        stream.picture(pts + i * frame);
    stream.audio(pts);
}

std::vector<gop> read_whole(fragment_reader& reader, const byte_string& bytes)
{
    reader.begin_fragment();
    EXPECT_EQ(reader.read(bytes), bytes.size() / packet_bytes * packet_bytes);
    reader.end_fragment();
    std::vector<gop> gops;
    while (reader.has_gop())
        gops.push_back(reader.take_gop());
    return gops;
}

byte_string beginning(const stream_builder& stream, size_t bytes)
{
    return {stream.bytes().begin(), stream.bytes().begin() + static_cast<std::ptrdiff_t>(bytes)};
}

std::vector<gop> read_stream(const stream_builder& stream, int64_t longest = 6 * second)
{
    fragment_reader reader(longest);
    return read_whole(reader, stream.bytes());
}

} // namespace

TEST(FragmentReader, FindsOneGopInAFragmentThatIsOne)
{
    stream_builder stream;
    stream.tables();
    add_second(stream, 900000);
    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 1u);
    EXPECT_EQ(gops[0].begin, 0u);
    EXPECT_EQ(gops[0].end, stream.bytes().size());
    EXPECT_TRUE(gops[0].tables.empty()) << "it begins with its own";
    EXPECT_EQ(gops[0].start, 900000);
    EXPECT_EQ(gops[0].length, second);
    EXPECT_TRUE(gops[0].keyframe);
    EXPECT_TRUE(gops[0].independent);
    EXPECT_EQ(gops[0].continuity_errors, 0u);
    EXPECT_EQ(gops[0].facts.video.width, 320u);
    EXPECT_EQ(gops[0].facts.video.height, 240u);
    EXPECT_EQ(gops[0].facts.video.codec, "avc1.4D0028");
    EXPECT_EQ(gops[0].facts.video.frame_rate, 25);
}

TEST(FragmentReader, TakesAFragmentApartAtItsKeyframes)
{
    stream_builder stream;
    stream.tables();
    add_second(stream, 900000);
    const size_t second_begins = stream.mark();
    add_second(stream, 900000 + second);
    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 2u);
    EXPECT_EQ(gops[0].end, second_begins);
    EXPECT_EQ(gops[1].begin, second_begins);
    EXPECT_EQ(gops[1].start, 900000 + second);
    EXPECT_EQ(gops[1].tables.size(), 2 * packet_bytes) << "those that came last";
    EXPECT_EQ(gops[1].tables, stream.between(0, 2 * packet_bytes));
}

TEST(FragmentReader, GivesOutTheSameWhateverPiecesTheBytesComeIn)
{
    stream_builder stream;
    stream.tables();
    for (int i = 0; i < 3; i++)
        add_second(stream, 900000 + i * second);
    const auto whole = read_stream(stream);

    fragment_reader reader(6 * second);
    reader.begin_fragment();
    std::span<const uint8_t> rest = stream.bytes();
    byte_string waiting;
    for (size_t piece = 1; !rest.empty(); piece = piece % 700 + 37) {
        const size_t count = std::min(piece, rest.size());
        append(waiting, rest.first(count));
        rest = rest.subspan(count);
        const size_t taken = reader.read(waiting);
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(taken));
    }
    reader.end_fragment();
    for (const gop& want : whole) {
        ASSERT_TRUE(reader.has_gop());
        const gop got = reader.take_gop();
        EXPECT_EQ(got.begin, want.begin);
        EXPECT_EQ(got.end, want.end);
        EXPECT_EQ(got.length, want.length);
        EXPECT_EQ(got.layout, want.layout);
    }
    EXPECT_FALSE(reader.has_gop());
}

TEST(FragmentReader, KnowsWhenAFragmentBeginsAsSoonAsItsFirstPacketIsThere)
{
    stream_builder stream;
    stream.tables();
    const size_t first = stream.mark();
    stream.keyframe(900000, 4000);
    fragment_reader reader(6 * second);
    reader.begin_fragment();
    EXPECT_EQ(reader.current_start(), -1);
    reader.read(stream.between(0, first + packet_bytes));
    EXPECT_EQ(reader.current_start(), 900000);
}

TEST(FragmentReader, SplitsAGopThatIsTooLong)
{
    stream_builder stream;
    stream.tables();
    add_second(stream, 900000, 25 * 10);
    const auto gops = read_stream(stream, 4 * second);
    ASSERT_EQ(gops.size(), 3u);
    EXPECT_TRUE(gops[0].keyframe);
    EXPECT_FALSE(gops[1].keyframe);
    EXPECT_FALSE(gops[1].independent);
    EXPECT_EQ(gops[0].length, 4 * second);
    EXPECT_EQ(gops[1].start, 900000 + 4 * second);
    EXPECT_EQ(gops[2].length, 2 * second);
}

TEST(FragmentReader, LeavesOutWhatStandsBehindAJumpUntilAKeyframe)
{
    stream_builder stream;
    stream.tables();
    add_second(stream, 900000, 10);
    const size_t jump = stream.mark();
    for (int i = 0; i < 5; i++)
        stream.picture(900000 + 700 * second + i * frame);
    const size_t keyframe = stream.mark();
    add_second(stream, 900000 + 701 * second, 10);
    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 2u);
    EXPECT_TRUE(gops[0].cut_at_jump);
    EXPECT_EQ(gops[0].end, jump);
    EXPECT_EQ(gops[0].length, 10 * frame);
    EXPECT_EQ(gops[1].begin, keyframe);
    EXPECT_FALSE(gops[1].cut_at_jump);
}

TEST(FragmentReader, RunsOnWhereTheClockBeginsAnew)
{
    stream_builder stream;
    stream.tables();
    stream.keyframe(pts_modulus - 2 * frame).picture(pts_modulus - frame);
    stream.picture(0).picture(frame);
    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 1u);
    EXPECT_EQ(gops[0].length, 4 * frame);
}

TEST(FragmentReader, CountsLostAndDamagedPackets)
{
    stream_builder stream;
    stream.tables();
    stream.keyframe(900000, 3000);
    byte_string bytes = stream.bytes();
    bytes.erase(bytes.begin() + 5 * packet_bytes, bytes.begin() + 6 * packet_bytes);
    bytes[8 * packet_bytes + 1] |= 0x80; // transport_error_indicator
    fragment_reader reader(6 * second);
    const auto gops = read_whole(reader, bytes);
    ASSERT_EQ(gops.size(), 1u);
    EXPECT_EQ(gops[0].continuity_errors, 2u) << "what is damaged is not counted on";
    EXPECT_EQ(gops[0].transport_errors, 1u);
}

TEST(FragmentReader, TellsLayoutsApart)
{
    const auto layout_of = [](const programme_fields& programme) {
        stream_builder stream(programme);
        stream.tables();
        add_second(stream, 900000);
        return read_stream(stream).at(0).layout;
    };
    const std::string usual = layout_of({});
    EXPECT_EQ(layout_of({}), usual);
    EXPECT_NE(layout_of({.video_pid = 0x201}), usual);
    EXPECT_NE(layout_of({.audio = audio_codec::mpeg}), usual);
    EXPECT_NE(layout_of({.audio = audio_codec::none}), usual);
    EXPECT_NE(layout_of({.picture_size = {.width = 640, .height = 480}}), usual);
}

// The segmenter does not cut within a second of its last cut.
TEST(FragmentReader, TellsOfAChangeWithTheGopThatItComesWith)
{
    stream_builder stream;
    stream.tables();
    add_second(stream, 900000);
    const auto before = read_stream(stream);
    stream_builder larger({.picture_size = {.width = 640, .height = 480}});
    add_second(larger, 900000 + second);
    stream.pmt.streams.push_back({.stream_type = 0x0F, .pid = 0x103});
    stream.raw(larger.bytes()).tables();
    add_second(stream, 900000 + 2 * second);
    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 3u);
    EXPECT_EQ(gops[0].layout, before[0].layout);
    EXPECT_EQ(gops[0].facts.video.width, 320u);
    EXPECT_EQ(gops[1].facts.video.width, 640u);
    EXPECT_EQ(gops[1].facts.audio.size(), 1u);
    EXPECT_NE(gops[1].layout, gops[0].layout);
    EXPECT_EQ(gops[2].facts.audio.size(), 2u);
    EXPECT_NE(gops[2].layout, gops[1].layout);
}

namespace
{

// A break of a minute that begins at 0x7369C02E, ANSI/SCTE 35, 14.
const byte_string splice_section = {
    0xFC, 0x30, 0x2F, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xF0, 0x14,
    0x05, 0x48, 0x00, 0x00, 0x8F, 0x7F, 0xEF, 0xFE, 0x73, 0x69, 0xC0, 0x2E, 0xFE,
    0x00, 0x52, 0xCC, 0xF5, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x08, 0x43,
    0x55, 0x45, 0x49, 0x00, 0x00, 0x01, 0x35, 0x62, 0xDB, 0xA3, 0x0A,
};
constexpr uint16_t splice_pid = 0x1F0;

// GOPs of a stream that has the section in its second one.
std::vector<gop> with_splice(std::optional<pmt_stream> told, uint16_t pid = 0)
{
    stream_builder stream;
    if (told)
        stream.pmt.streams.push_back(*told);
    stream.tables();
    add_second(stream, 900000);
    add_second(stream, 900000 + second);
    packetiser packets;
    stream.raw(packets.section(splice_pid, section_unit(splice_section)));
    add_second(stream, 900000 + 2 * second);
    fragment_reader reader(6 * second);
    reader.read_splices_of(pid);
    return read_whole(reader, stream.bytes());
}

} // namespace

TEST(FragmentReader, GivesSplicesWithTheGopThatTheyCameIn)
{
    const auto gops = with_splice(pmt_stream{.stream_type = 0x86, .pid = splice_pid});
    ASSERT_EQ(gops.size(), 3u);
    EXPECT_TRUE(gops[0].splices.empty());
    ASSERT_EQ(gops[1].splices.size(), 1u);
    EXPECT_EQ(gops[1].splices[0].time, 0x7369C02E);
    EXPECT_TRUE(gops[2].splices.empty());
}

TEST(FragmentReader, KnowsTheStreamOfSplices)
{
    const byte_string cuei = build_descriptor(0x05, bytes_of("CUEI"));
    const byte_string other = build_descriptor(0x05, bytes_of("DTSH"));
    const auto found = [](std::optional<pmt_stream> told, uint16_t pid = 0) {
        return with_splice(told, pid).at(1).splices.size();
    };
    EXPECT_EQ(found(pmt_stream{.stream_type = 0x86, .pid = splice_pid, .descriptors = cuei}), 1u);
    EXPECT_EQ(found(pmt_stream{.stream_type = 0x05, .pid = splice_pid, .descriptors = cuei}), 1u);
    EXPECT_EQ(found(pmt_stream{.stream_type = 0x86, .pid = splice_pid, .descriptors = other}), 0u);
    EXPECT_EQ(found(pmt_stream{.stream_type = 0x05, .pid = splice_pid}), 0u);
    EXPECT_EQ(found(std::nullopt), 0u);
    EXPECT_EQ(found(std::nullopt, splice_pid), 1u) << "as the settings say";
}

TEST(FragmentReader, ReadsMpegVideo)
{
    stream_builder stream({.video = video_codec::mpeg2, .audio = audio_codec::mpeg});
    stream.tables();
    add_second(stream, 900000);
    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 1u);
    EXPECT_TRUE(gops[0].keyframe);
    EXPECT_TRUE(gops[0].independent);
    EXPECT_EQ(gops[0].facts.video.codec, "mp4v.6A");
    EXPECT_EQ(gops[0].facts.video.width, 720u);
    EXPECT_EQ(gops[0].facts.video.frame_rate, 25);
}

TEST(FragmentReader, ReadsAudioAlone)
{
    stream_builder stream({.video = video_codec::none, .audio = audio_codec::aac});
    stream.tables();
    for (int i = 0; i < 50; i++)
        stream.audio(900000 + i * 1920);
    fragment_reader reader(6 * second);
    const auto gops = read_whole(reader, stream.bytes());
    ASSERT_EQ(gops.size(), 1u);
    EXPECT_TRUE(gops[0].independent);
    EXPECT_EQ(gops[0].length, 50 * 1920);
    EXPECT_EQ(reader.audio_points().size(), 50u);
}

TEST(FragmentReader, LearnsTablesThatStandBehindTheFirstKeyframe)
{
    stream_builder stream;
    stream.keyframe(900000).tables().picture(900000 + frame);
    fragment_reader reader(6 * second);
    reader.learn_tables(stream.bytes());
    const auto gops = read_whole(reader, stream.bytes());
    ASSERT_EQ(gops.size(), 1u);
    EXPECT_EQ(gops[0].start, 900000);
    EXPECT_EQ(gops[0].tables.size(), 2 * packet_bytes);
}

TEST(FragmentReader, FindsNothingInGarbage)
{
    fragment_reader reader(6 * second);
    EXPECT_TRUE(read_whole(reader, counting_bytes(100 * packet_bytes)).empty());
    EXPECT_TRUE(read_whole(reader, {}).empty());
    EXPECT_TRUE(read_whole(reader, byte_string(100, 0x47)).empty());
}

namespace
{

// Two seconds in one fragment, of which one packet is lost.
std::vector<gop> read_without_packet(const stream_builder& stream, size_t lost)
{
    byte_string bytes = stream.between(0, lost);
    append(bytes, stream.from(lost + packet_bytes));
    fragment_reader reader(6 * second);
    return read_whole(reader, bytes);
}

} // namespace

TEST(FragmentReader, CountsWhatIsLostWhereItIsMissing)
{
    stream_builder stream;
    stream.tables();
    stream.keyframe(900000, 2000).picture(900000 + frame, 2000);
    const size_t next = stream.mark();
    stream.keyframe(900000 + second, 2000).picture(900000 + second + frame, 2000);

    auto gops = read_without_packet(stream, next - packet_bytes);
    ASSERT_EQ(gops.size(), 2u);
    EXPECT_EQ(gops[0].continuity_errors, 1u) << "the last packet before the keyframe";
    EXPECT_EQ(gops[1].continuity_errors, 0u);

    gops = read_without_packet(stream, next + packet_bytes);
    ASSERT_EQ(gops.size(), 2u);
    EXPECT_EQ(gops[0].continuity_errors, 0u);
    EXPECT_EQ(gops[1].continuity_errors, 1u) << "the keyframe's second packet";
}

TEST(FragmentReader, SaysThatTheFragmentBeforeLostItsEnd)
{
    stream_builder stream;
    stream.tables();
    stream.audio(900000).keyframe(900000).picture(900000 + frame);
    const size_t sound = stream.mark();
    stream.audio(900000 + frame, 50);
    const size_t last = stream.mark();
    stream.picture(900000 + 2 * frame, 20);
    const size_t cut = stream.mark();
    stream.keyframe(900000 + second);
    const size_t next_sound = stream.mark();
    stream.audio(900000 + second);

    const auto lost_before = [&](size_t lost) {
        byte_string before = stream.between(0, cut);
        if (lost < cut)
            before.erase(before.begin() + static_cast<std::ptrdiff_t>(lost),
                         before.begin() + static_cast<std::ptrdiff_t>(lost + packet_bytes));
        fragment_reader reader(6 * second);
        EXPECT_EQ(read_whole(reader, before).at(0).continuity_errors, 0u) << "it does not show yet";
        reader.begin_fragment();
        reader.read(stream.between(cut, next_sound));
        EXPECT_FALSE(reader.knows_end_before());
        reader.read(stream.from(next_sound));
        EXPECT_TRUE(reader.knows_end_before());
        return reader.lost_before_fragment();
    };
    EXPECT_FALSE(lost_before(cut));
    EXPECT_TRUE(lost_before(last)) << "of the pictures";
    EXPECT_TRUE(lost_before(sound)) << "of the sound";
}

TEST(FragmentReader, WaitsForSoundBehindTheCutOnlyWhereItsPesPacketGoesOn)
{
    struct ending {
        std::string what;
        size_t bytes;
        size_t left_out; // packets
        bool unbounded;
        bool is_known;
    };
    for (const ending& e : {
             ending{"it ends before the cut", 500, 0, false, true},
             ending{"its last packet is behind the cut, or lost", 500, 1, false, false},
             ending{"the loss of a packet may take another one like it", 100, 0, false, false},
             ending{"it does not say how long it is", 500, 0, true, false},
             ending{"there is no sound", 0, 0, false, true},
         }) {
        SCOPED_TRACE(e.what);
        stream_builder stream;
        stream.tables().keyframe(900000);
        if (e.bytes > 0)
            stream.pes(0x102, {.stream_id = 0xC0,
                               .length = e.unbounded ? pes_length::zero : pes_length::true_length,
                               .pts = 900000,
                               .payload = byte_string(e.bytes, 0x5A)});
        const size_t sound_end = stream.mark() - e.left_out * packet_bytes;
        const size_t picture = stream.mark();
        stream.picture(900000 + frame);
        const size_t cut = stream.mark();
        stream.keyframe(900000 + second);

        byte_string before = stream.between(0, sound_end);
        append(before, stream.between(picture, cut));
        fragment_reader reader(6 * second);
        std::ignore = read_whole(reader, before);
        reader.begin_fragment();
        EXPECT_FALSE(reader.knows_end_before()) << "nor that of the pictures";
        reader.read(stream.from(cut));
        EXPECT_EQ(reader.knows_end_before(), e.is_known);
        EXPECT_FALSE(reader.lost_before_fragment());
    }
}

TEST(FragmentReader, KnowsTheSamePicturesOnAnotherClock)
{
    const auto content_of = [](int64_t pts, size_t filler, video_codec video) {
        programme_fields programme;
        programme.video = video;
        stream_builder stream(programme);
        stream.tables();
        if (video != video_codec::none)
            stream.keyframe(pts, filler).picture(pts + frame, filler);
        stream.audio(pts, filler);
        fragment_reader reader(6 * second);
        reader.tell_contents();
        return read_whole(reader, stream.bytes()).at(0).content;
    };
    for (const video_codec video : {video_codec::h264, video_codec::mpeg2, video_codec::none}) {
        EXPECT_EQ(content_of(900000, 300, video), content_of(4500000, 300, video));
        EXPECT_NE(content_of(900000, 300, video), content_of(900000, 301, video));
    }
}

TEST(FragmentReader, TellsWhichBytesAreTheKeyframe)
{
    stream_builder stream;
    stream.tables();
    const size_t small = stream.mark();
    stream.keyframe(900000);
    const size_t small_end = stream.mark();
    stream.audio(900000).picture(900000 + frame);
    const size_t large = stream.mark();
    stream.keyframe(900000 + second, 20000); // more than is looked at of a picture
    const size_t large_end = stream.mark();
    stream.audio(900000 + second).picture(900000 + second + frame);
    const size_t last = stream.mark();
    stream.keyframe(900000 + 2 * second);
    const size_t last_end = stream.mark();
    stream.audio(900000 + 2 * second);

    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 3u);
    EXPECT_EQ(gops[0].picture_begin, small) << "behind the tables";
    EXPECT_EQ(gops[0].picture_end, small_end) << "before the sound";
    EXPECT_EQ(gops[1].picture_begin, large);
    EXPECT_EQ(gops[1].picture_end, large_end);
    EXPECT_EQ(gops[2].picture_begin, last);
    EXPECT_EQ(gops[2].picture_end, last_end);
}

TEST(FragmentReader, TellsWhatCanBePlayedWhereAProgramWasKilled)
{
    fragment_reader reader(6 * second);
    stream_builder stream;
    stream.tables().keyframe(900000).aac_frame(900000);
    stream.picture(900000 + 3 * frame).picture(900000 + frame);
    const size_t last = stream.mark();
    stream.picture(900000 + 2 * frame, 500);
    const auto whole = read_whole(reader, stream.bytes());
    ASSERT_EQ(whole.size(), 1u);
    EXPECT_EQ(whole[0].usable_end, whole[0].end) << "stuffing says that the picture is whole";
    EXPECT_EQ(whole[0].usable_length, 4 * frame);
    auto torn = read_whole(reader, beginning(stream, stream.mark() - packet_bytes));
    ASSERT_EQ(torn.size(), 1u);
    EXPECT_EQ(torn[0].usable_end, last);
    EXPECT_EQ(torn[0].usable_length, 4 * frame) << "a later one came before it";

    EXPECT_FALSE(torn[0].lacks_sound);

    stream_builder silent;
    silent.tables().keyframe(900000 + second).picture(900000 + second + frame);
    silent.picture(900000 + second + 2 * frame, 500);
    const size_t sound = silent.mark();
    silent.aac_frame(900000 + second, 500);
    EXPECT_FALSE(read_whole(reader, silent.bytes()).at(0).lacks_sound);
    EXPECT_TRUE(read_whole(reader, beginning(silent, sound + packet_bytes)).at(0).lacks_sound)
        << "players wait for the rest of a PES packet";
    EXPECT_TRUE(read_whole(reader, beginning(silent, sound)).at(0).lacks_sound);
    silent.picture(900000 + second + 3 * frame, 500);
    EXPECT_FALSE(
        read_whole(reader, beginning(silent, silent.mark() - packet_bytes)).at(0).lacks_sound);

    stream_builder lone;
    lone.tables().aac_frame(900000 + 2 * second).keyframe(900000 + 2 * second, 500);
    torn = read_whole(reader, beginning(lone, lone.mark() - packet_bytes));
    ASSERT_EQ(torn.size(), 1u);
    EXPECT_EQ(torn[0].usable_end, 0u);
}

TEST(FragmentReader, HasNoBytesOfAPictureWhereThereIsNone)
{
    stream_builder stream({.video = video_codec::none, .audio = audio_codec::aac});
    stream.tables();
    stream.audio(900000).audio(900000 + 1920);
    const auto gops = read_stream(stream);
    ASSERT_EQ(gops.size(), 1u);
    EXPECT_EQ(gops[0].picture_begin, gops[0].picture_end);
}

TEST(FragmentReader, ForgetsTheBytesOfPicturesWithTheirFragment)
{
    stream_builder pictures;
    pictures.tables();
    add_second(pictures, 900000);
    stream_builder sound({.video = video_codec::none, .audio = audio_codec::aac});
    sound.tables().aac_frame(990000).aac_frame(990000 + 1920);
    byte_string both = sound.bytes();
    both.insert(both.end(), pictures.bytes().begin(), pictures.bytes().end());

    fragment_reader reader(6 * second);
    read_whole(reader, pictures.bytes());
    const auto gops = read_whole(reader, both);
    ASSERT_FALSE(gops.empty());
    EXPECT_EQ(gops[0].begin, 0u);
    EXPECT_EQ(gops[0].picture_begin, gops[0].picture_end) << "it begins without pictures";
}
