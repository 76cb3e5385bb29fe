#include "tools/ts_prepare/stream_description.hpp"

#include <gtest/gtest.h>

#include "tests/support/clocked_stream.hpp"
#include "tests/support/stream_builder.hpp"
#include "tools/ts_prepare/description_text.hpp"

namespace
{

constexpr int64_t second = 90000;

stream_description describe(byte_string bytes, bool whole = true)
{
    const auto describer = std::make_unique<stream_describer>();
    EXPECT_EQ(describe_bytes(*describer, bytes, more_input::none), bytes.size());
    end_description(*describer, whole);
    return describer->description;
}

// A keyframe every so many seconds, and pictures between them.
void add_pictures(stream_builder& stream, int64_t seconds, int64_t keyframe_distance)
{
    for (int64_t n = 0; n < 4 * seconds; n++) {
        const int64_t pts = second + n * second / 4;
        if (n % (4 * keyframe_distance) == 0)
            stream.keyframe(pts);
        else
            stream.picture(pts);
    }
}

TEST(StreamDescription, SaysWhatTheProgramTakes)
{
    const struct {
        const char* name;
        uint8_t stream_type;
        byte_string descriptors;
        const char* codec;
        stream_use use;
    } streams[] = {
        {"HEVC", 0x24, {}, "HEVC video", stream_use::passed},
        {"H.264", 0x1B, {}, "H.264 video", stream_use::video},
        {"a second video", 0x02, {}, "MPEG-2 video", stream_use::passed},
        {"AC-3 of DVB", 0x06, build_descriptor(0x6A, {0}), "AC-3 audio", stream_use::passed},
        {"AC-3 of ATSC", 0x81, {}, "AC-3 audio", stream_use::passed},
        {"AAC in LATM", 0x11, {}, "AAC audio (LATM)", stream_use::passed},
        {"AAC", 0x0F, {}, "AAC audio (ADTS)", stream_use::audio},
        {"MPEG audio", 0x04, {}, "MPEG audio", stream_use::secondary_audio},
        {"a third audio", 0x03, {}, "MPEG audio", stream_use::passed},
        {"teletext", 0x06, build_descriptor(0x56, {}), "teletext", stream_use::passed},
        {"subtitles", 0x06, build_descriptor(0x59, {}), "DVB subtitles", stream_use::passed},
    };
    pmt_fields pmt;
    for (const auto& stream : streams)
        pmt.streams.push_back({.stream_type = stream.stream_type,
                               .pid = static_cast<uint16_t>(0x200 + pmt.streams.size()),
                               .descriptors = stream.descriptors});
    packetiser packets;
    byte_string bytes = packets.section(0, section_unit(build_pat({})));
    append(bytes, packets.section(0x1000, section_unit(build_pmt(pmt))));
    const stream_description got = describe(concat({bytes, null_packets(10)}));
    ASSERT_EQ(got.programmes.size(), 1U);
    ASSERT_EQ(got.programmes[0].streams.size(), std::size(streams));
    for (size_t i = 0; i < std::size(streams); i++) {
        SCOPED_TRACE(streams[i].name);
        EXPECT_EQ(got.programmes[0].streams[i].pid, 0x200 + i);
        EXPECT_STREQ(got.programmes[0].streams[i].codec, streams[i].codec);
        EXPECT_EQ(got.programmes[0].streams[i].use, streams[i].use);
    }
}

TEST(StreamDescription, FindsKeyframesAndTheFragmentsThatTheyGive)
{
    const struct {
        const char* name;
        video_codec video;
        int64_t keyframe_distance;
        int frag_duration;
        std::vector<double> want;
    } cases[] = {
        {"every 2 s, strictly after 4 s", video_codec::h264, 2, 4, {6, 6, 6}},
        {"every 2 s, of 5 s", video_codec::h264, 2, 5, {6, 6, 6}},
        {"every 10 s", video_codec::h264, 10, 4, {10}},
        {"MPEG-2 every second", video_codec::mpeg2, 1, 4, {5, 5, 5}},
        {"too rare", video_codec::h264, 20, 4, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream({.video = c.video});
        stream.tables();
        add_pictures(stream, 20, c.keyframe_distance);
        const stream_description got = describe(stream.bytes());
        EXPECT_EQ(got.cut_points.size(), static_cast<size_t>(20 / c.keyframe_distance));
        EXPECT_EQ(fragment_durations(got, c.frag_duration, 0), c.want);
    }
}

TEST(StreamDescription, CutsAProgrammeWithoutVideoAtItsAudio)
{
    stream_builder stream({.video = video_codec::none});
    stream.tables();
    for (int64_t n = 0; n < 100; n++)
        stream.audio(second + n * second / 10);
    const stream_description got = describe(stream.bytes());
    EXPECT_TRUE(got.cut_at_audio);
    EXPECT_EQ(fragment_durations(got, 4, 0), (std::vector<double>{4.1, 4.1}));
}

// The tables have come for the third time when so many bytes of padding stand before them.
TEST(StreamDescription, SaysWhetherTheProgramStarts)
{
    constexpr size_t needed = 6 * packet_bytes; // PAT and PMT three times
    constexpr size_t on_pipe = program_fill_bytes - program_look_ahead_bytes;
    constexpr size_t from_file = program_window_bytes - program_look_ahead_bytes;
    const struct {
        const char* name;
        size_t tables_end;
        size_t bytes;
        bool pipe;
        bool file;
    } cases[] = {
        {"at once", needed, program_fill_bytes + packet_bytes, true, true},
        {"too short", needed, program_fill_bytes - packet_bytes, false, false},
        {"just in time on a pipe", on_pipe / packet_bytes * packet_bytes, 9'000'000, true, true},
        {"too late on a pipe", on_pipe / packet_bytes * packet_bytes + packet_bytes, 9'000'000,
         false, true},
        {"just in time from a file", from_file / packet_bytes * packet_bytes, 9'000'000, false,
         true},
        {"too late from a file", from_file / packet_bytes * packet_bytes + packet_bytes, 9'000'000,
         false, false},
        {"too near to the end of a file", 600'004, 2'100'000, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        const size_t before = c.tables_end / packet_bytes - needed / packet_bytes;
        stream.null(before).tables(3).null_until(c.bytes - c.bytes % packet_bytes);
        const stream_description got = describe(stream.bytes());
        EXPECT_EQ(got.tables_known_at, (before + 6) * packet_bytes);
        EXPECT_EQ(starts_on_pipe(got), c.pipe);
        EXPECT_EQ(starts_from_file(got), c.file);
    }
}

// The first keyframe comes before the tables are known: the program begins at the second.
TEST(StreamDescription, CountsFragmentsFromTheFirstKeyframeBehindTheTables)
{
    const auto fragments_of = [](size_t bytes) {
        stream_builder stream;
        stream.tables().keyframe(1 * second).tables(2);
        stream.keyframe(6 * second).keyframe(16 * second);
        stream.null_until(bytes - bytes % packet_bytes);
        const stream_description got = describe(stream.bytes());
        return fragment_durations(got, 4, output_begins_at(got));
    };
    EXPECT_EQ(fragments_of(program_fill_bytes + packet_bytes), (std::vector<double>{10}));
    // Too short to start as it is. Behind vorn_ts_prepare the tables stand in front.
    EXPECT_EQ(fragments_of(program_fill_bytes - packet_bytes), (std::vector<double>{5, 10}));
}

TEST(StreamDescription, ReadsAsAFewLines)
{
    stream_builder stream;
    stream.tables(3);
    add_pictures(stream, 20, 2);
    EXPECT_EQ(description_as_text(describe(stream.bytes()), 4),
              "Packets of 188 bytes; 0.0 MB were read.\n"
              "Programme 1, PMT 1000h, PCR 0101h\n"
              "  0101h  H.264 video: taken as video\n"
              "  0102h  AAC audio (ADTS): taken as audio\n"
              "Tables: PAT after at most 0 kB, PMT after at most 0 kB.\n"
              "A keyframe every 2.000 s.\n"
              "Starts as it is: no on a pipe, no as a file. It waits for 2 MiB. Behind "
              "vorn_ts_prepare on a pipe: yes.\n"
              "With --frag-duration 4: 3 fragments of 6.000 s, since each ends at a keyframe.\n");
}

TEST(StreamDescription, TellsTimeByThePcr)
{
    clocked_stream stream;
    stream.tables().frames(10 * second, 251);
    const stream_description got = describe(stream.bytes);
    EXPECT_EQ(got.clock_ticks, 10 * second);
    EXPECT_NE(description_as_text(got, 4).find(", 10.0 s at "), std::string::npos);
}

TEST(StreamDescription, SaysWhatIsMissing)
{
    const struct {
        const char* name;
        byte_string bytes;
        const char* want;
    } cases[] = {
        {"nothing", {}, "No transport stream was found.\n"},
        {"text", bytes_of("some text"), "No transport stream was found.\n"},
        {"no tables", null_packets(20),
         "Packets of 188 bytes; 0.0 MB were read.\n"
         "Tables: no PAT, no PMT.\n"
         "Does not start: there is no PAT that names a programme.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(description_as_text(describe(c.bytes), 4), c.want);
    }
}

TEST(StreamDescription, ReadsAsJson)
{
    clocked_stream stream;
    stream.tables().frames(10 * second, 26);
    const stream_description got = describe(stream.bytes);
    const std::string bytes = std::to_string(stream.bytes.size());
    const std::string rate = std::to_string(stream.bytes.size() * 8);
    EXPECT_EQ(description_as_json(got, 4),
              "{\"format\":\"packets of 188 bytes\",\"bytes\":" + bytes +
                  ",\"whole\":true,\"seconds\":1.000,\"bit_rate\":" + rate +
                  ",\"programmes\":[{\"number\":1,\"pmt_pid\":4096,\"pcr_pid\":256,"
                  "\"followed\":true,\"streams\":["
                  "{\"pid\":256,\"stream_type\":27,\"codec\":\"H.264 video\",\"use\":\"video\"},"
                  "{\"pid\":257,\"stream_type\":15,\"codec\":\"AAC audio (ADTS)\","
                  "\"use\":\"audio\"}]}],\"pat_longest_bytes\":0,\"pmt_longest_bytes\":188,"
                  "\"tables_known_at\":0,\"keyframes\":0,\"keyframe_distance\":"
                  "{\"count\":0,\"shortest\":0.000,\"longest\":0.000},\"starts_on_pipe\":false,"
                  "\"starts_from_file\":false,\"frag_duration\":4,\"fragments\":"
                  "{\"count\":0,\"shortest\":0.000,\"longest\":0.000},\"continuity_errors\":0,"
                  "\"transport_errors\":0,\"skipped_bytes\":0}\n");
}

} // namespace
