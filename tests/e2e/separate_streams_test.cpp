// Video, audio and secondary audio in renditions of their own.

#include <gtest/gtest.h>

#include "tests/support/expect_run.hpp"
#include "tests/support/expected_text.hpp"
#include "tests/support/stream_builder.hpp"

namespace
{

constexpr int64_t second = 90000;
const std::string tables_warning = "Separate streams REQUIRES --start-pat-pmt option\n";

// A packet that carries one section, as it stands at a fragment's start.
byte_string table_packet(uint16_t pid, const byte_string& section, size_t counter)
{
    return build_ts_packet({.payload_unit_start = true,
                            .pid = pid,
                            .continuity_counter = static_cast<uint8_t>(counter & 0x0F),
                            .payload = section_unit(section)});
}

byte_string pat_at(const stream_builder& stream, size_t counter)
{
    return table_packet(0, build_pat(stream.pat), counter);
}

// The received PMT with one of its streams, which then carries the PCR.
byte_string rendition_pmt_at(const stream_builder& stream, size_t index, size_t counter)
{
    pmt_fields pmt = stream.pmt;
    pmt.streams = {stream.pmt.streams.at(index)};
    pmt.pcr_pid = pmt.streams.front().pid;
    return table_packet(0x1000, build_pmt(pmt), counter);
}

byte_string tables_at(const stream_builder& stream, size_t index, size_t counter)
{
    return concat({pat_at(stream, counter), rendition_pmt_at(stream, index, counter)});
}

// The packets of one PID between two offsets of the stream.
byte_string packets_of(const stream_builder& stream, uint16_t pid, size_t begin, size_t end)
{
    const byte_string part = stream.between(begin, end);
    byte_string out;
    for (size_t at = 0; at < part.size(); at += packet_bytes) {
        const int packet_pid = ((part[at + 1] & 0x1F) << 8) | part[at + 2];
        if (packet_pid == pid)
            append(out, std::span(part).subspan(at, packet_bytes));
    }
    return out;
}

byte_string master_with_audio(uint64_t bandwidth, bool sap, const std::string& resolution = {})
{
    std::string text =
        "#EXTM3U\n"
        "#EXT-X-VERSION:4\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC1\",INSTREAM-ID=\"CC1\",AUTOSELECT=YES,DEFAULT=YES\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC2\",INSTREAM-ID=\"CC2\"\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC3\",INSTREAM-ID=\"CC3\"\n"
        "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC4\",INSTREAM-ID=\"CC4\"\n"
        "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",AUTOSELECT=YES,DEFAULT=YES,LANGUAGE=\"eng\",NAME=\"Main\",URI=\"ch1.m3u8.a.m3u8\"\n";
    if (sap)
        text +=
            "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",AUTOSELECT=NO,DEFAULT=NO,LANGUAGE=\"spa\",NAME=\"SAP\",URI=\"ch1.m3u8.sap.m3u8\"\n";
    text += "\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=" +
            std::to_string(bandwidth) + ",CLOSED-CAPTIONS=\"caps\",AUDIO=\"aud\"" +
            (resolution.empty() ? "" : ",RESOLUTION=" + resolution) +
            "\n"
            "ch1.m3u8.v.m3u8\n"
            "\n";
    return bytes_of(text);
}

byte_string one_fragment_playlist(const std::string& base)
{
    return media_playlist({.first_sequence = 0, .fragments = {{"5.000", fragment_name(0, base)}}});
}

// Video, audio, secondary audio and packets of no rendition, cut twice.
struct three_streams {
    three_streams() : stream({.sap = audio_codec::mpeg})
    {
        stream.pmt.program_info = build_descriptor(0x05, bytes_of("HDMV"));
        stream.pmt.streams[1].descriptors = build_descriptor(0x0A, {'e', 'n', 'g', 0});
        stream.pmt.section.version_number = 6;
        stream.start_up();
        stream.audio(899000);
        first = stream.mark();
        stream.keyframe(900000, 900).audio(900000).sap(900000).null(2);
        stream.packet({.pid = 0x11}).audio(945000).picture(945000);
        next = stream.mark();
        stream.keyframe(900000 + 5 * second).audio(900000 + 5 * second);
        stream.sap(900000 + 5 * second).tables().null(1);
    }

    // The packets of one PID in the finished fragment, and in the open one.
    [[nodiscard]] byte_string finished(uint16_t pid) const
    {
        return packets_of(stream, pid, first, next);
    }
    [[nodiscard]] byte_string open(uint16_t pid) const
    {
        return packets_of(stream, pid, next, stream.mark());
    }

    // Of the video fragment with its PAT and PMT, 5 s long.
    [[nodiscard]] uint64_t bandwidth() const
    {
        return (2 * packet_bytes + finished(0x101).size()) * 8 / 5;
    }

    stream_builder stream;
    size_t first = 0;
    size_t next = 0;
};

// The counters of the tables count the fragments opened in all renditions.
TEST(SeparateStreams, WriteVideoAndAudioToFragmentsOfTheirOwn)
{
    const three_streams three;
    const stream_builder& s = three.stream;
    const std::string sap_playlist = "ch1.m3u8.sap.m3u8";
    const expected_run want{
        .standard_error = tables_warning + programme_lines() +
                          nameless_warnings(0, 0, sap_playlist) + "Stream EOF\n",
        .files = {
            {"ch1.m3u8", master_with_audio(three.bandwidth(), false, "320x240")},
            {"ch1.m3u8.v.m3u8", one_fragment_playlist("ch1.v")},
            {"ch1.m3u8.a.m3u8", one_fragment_playlist("ch1.a")},
            {sap_playlist, media_playlist({.first_sequence = 0, .fragments = nameless(1)})},
            {"ch1.v.00000000.ts", concat({tables_at(s, 0, 0), three.finished(0x101)})},
            {"ch1.a.00000000.ts", concat({tables_at(s, 1, 1), three.finished(0x102)})},
            {"ch1.v.00000001.ts", concat({tables_at(s, 0, 2), three.open(0x101)})},
            {"ch1.a.00000001.ts", concat({tables_at(s, 1, 3), three.open(0x102)})},
        }};
    EXPECT_TRUE(same_run(run_on(s.bytes(), {"--separate-streams"}), want));
}

TEST(SeparateStreams, WriteSecondaryAudioWhenAskedFor)
{
    const three_streams three;
    const stream_builder& s = three.stream;
    const expected_run want{
        .standard_error = programme_lines() + "Stream EOF\n",
        .files = {
            {"ch1.m3u8", master_with_audio(three.bandwidth(), true, "320x240")},
            {"ch1.m3u8.v.m3u8", one_fragment_playlist("ch1.v")},
            {"ch1.m3u8.a.m3u8", one_fragment_playlist("ch1.a")},
            {"ch1.m3u8.sap.m3u8", one_fragment_playlist("ch1.sap")},
            {"ch1.v.00000000.ts", concat({tables_at(s, 0, 0), three.finished(0x101)})},
            {"ch1.a.00000000.ts", concat({tables_at(s, 1, 1), three.finished(0x102)})},
            {"ch1.sap.00000000.ts", concat({tables_at(s, 2, 2), three.finished(0x103)})},
            {"ch1.v.00000001.ts", concat({tables_at(s, 0, 3), three.open(0x101)})},
            {"ch1.a.00000001.ts", concat({tables_at(s, 1, 4), three.open(0x102)})},
            {"ch1.sap.00000001.ts", concat({tables_at(s, 2, 5), three.open(0x103)})},
        }};
    EXPECT_TRUE(
        same_run(run_on(s.bytes(), {"--separate-streams", "--start-pat-pmt", "--sap"}), want));
}

TEST(SeparateStreams, AreNotAffectedByNoMultilevel)
{
    const three_streams three;
    const run_result got = run_on(three.stream.bytes(), {"--separate-streams", "--no-multilevel"});
    const run_result want = run_on(three.stream.bytes(), {"--separate-streams"});
    EXPECT_EQ(got.standard_error, "Separate streams AND no multilevel are incompatible options!\n" +
                                      want.standard_error);
    EXPECT_TRUE(same_files(got.files, want.files));
}

TEST(SeparateStreams, KeepTheFragmentNumbersOfAllRenditionsInStep)
{
    stream_builder stream;
    stream.start_up();
    for (int64_t i = 0; i < 6; i++)
        stream.keyframe(900000 + i * 5 * second).audio(900000 + i * 5 * second);
    const run_result got = run_on(stream.bytes(), {"--separate-streams"});
    std::vector<listed_fragment> video;
    std::vector<listed_fragment> audio;
    for (uint64_t i = 0; i < 5; i++) {
        video.push_back({"5.000", fragment_name(i, "ch1.v")});
        audio.push_back({"5.000", fragment_name(i, "ch1.a")});
    }
    EXPECT_EQ(got.files.at("ch1.m3u8.v.m3u8"),
              media_playlist({.first_sequence = 0, .fragments = video}));
    EXPECT_EQ(got.files.at("ch1.m3u8.a.m3u8"),
              media_playlist({.first_sequence = 0, .fragments = audio}));
    EXPECT_TRUE(got.files.contains("ch1.v.00000005.ts"));
    EXPECT_TRUE(got.files.contains("ch1.a.00000005.ts"));
}

// The programme aborts rather than truncate a table, and says why.
TEST(SeparateStreams, AbortOnAPmtThatDoesNotFitAPacket)
{
    struct {
        std::string_view name;
        size_t descriptor_bytes;
        bool want_abort;
    } const cases[] = {
        // 4 + 1 + 8 + 4 + 5 + 162 + 4 = 188 bytes.
        {.name = "a packet full", .descriptor_bytes = 162, .want_abort = false},
        {.name = "no room for the checksum's last byte",
         .descriptor_bytes = 163,
         .want_abort = true},
        {.name = "no room for the entry", .descriptor_bytes = 250, .want_abort = true},
    };
    const std::string assertion =
        "bool io_proc_ts_packet_on_pmt(PIDstate&, PIDmap&, mpeg_ts_packet&, bool&, "
        "const mpeg_ts_pat_main_header*, const unsigned char*, const unsigned char*, "
        "const cmdopts&): Assertion `p <= f' failed.\n";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        stream.pmt.streams[0].descriptors =
            build_descriptor(0x52, counting_bytes(c.descriptor_bytes - 2));
        stream.start_up();
        const run_result got = run_on(stream.bytes(), {"--separate-streams"});
        EXPECT_EQ(got.ending, c.want_abort ? "signal 6" : "exit 0");
        EXPECT_EQ(got.standard_error.find(assertion) != std::string::npos, c.want_abort)
            << got.standard_error;
    }
}

// Audio alone leads its rendition by itself; the others exist and stay without packets.
TEST(SeparateStreams, OfAProgrammeWithoutVideoWriteItsAudio)
{
    stream_builder stream({.video = video_codec::none});
    stream.start_up();
    const size_t first = stream.mark();
    stream.audio(900000);
    const size_t next = stream.mark();
    stream.audio(900000 + 5 * second);
    const expected_media_playlist without_name{.first_sequence = 0, .fragments = nameless(1)};
    const expected_run want{
        .standard_error = tables_warning + programme_lines({.video_pid = 0}) +
                          nameless_warnings(0, 0, "ch1.m3u8.v.m3u8") +
                          nameless_warnings(0, 0, "ch1.m3u8.sap.m3u8") + "Stream EOF\n",
        .files = {
            {"ch1.m3u8", master_with_audio(0, false)},
            {"ch1.m3u8.v.m3u8", media_playlist(without_name)},
            {"ch1.m3u8.a.m3u8", one_fragment_playlist("ch1.a")},
            {"ch1.m3u8.sap.m3u8", media_playlist(without_name)},
            {"ch1.a.00000000.ts", concat({tables_at(stream, 0, 0), stream.between(first, next)})},
            {"ch1.a.00000001.ts", concat({tables_at(stream, 0, 1), stream.from(next)})},
        }};
    EXPECT_TRUE(same_run(run_on(stream.bytes(), {"--separate-streams"}), want));
}

} // namespace
