// Writes the seeds of every fuzz target, one folder each, below the folder named: small sound
// inputs from which a fuzzer sets out, and which every build replays.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/caption_data.hpp"
#include "tests/support/caption_packet.hpp"
#include "tests/support/clocked_stream.hpp"
#include "tests/support/h264_builder.hpp"
#include "tests/support/mpeg_video_builder.hpp"
#include "tests/support/pes_builder.hpp"
#include "tests/support/stream_builder.hpp"
#include "tests/support/teletext_builder.hpp"
#include "toolkit/comm/comm_packet_builder.hpp"

namespace
{

std::filesystem::path root;

void write_seed(const std::string& target, const std::string& name, const byte_string& bytes)
{
    std::filesystem::create_directories(root / target);
    std::ofstream file(root / target / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// Enough seconds that fragments of more than a second are deleted, behind a backlog of one and the
// three kept unlisted.
constexpr int64_t seconds = 14;

// A few fragments' worth of a programme, without the padding that a real run needs at its start.
byte_string short_stream(const programme_fields& programme, int64_t first_pts)
{
    stream_builder stream(programme);
    stream.tables(3);
    for (int64_t second = 0; second < seconds; second++) {
        const int64_t pts = first_pts + second * 90000;
        if (programme.video != video_codec::none)
            stream.keyframe(pts, 50).picture(pts + 45000, 20);
        if (programme.audio != audio_codec::none)
            stream.audio(pts, 40);
        stream.null(1);
    }
    return stream.bytes();
}

void write_stream_seeds()
{
    const byte_string no_options = {0x00, 0x00, 0x00, 0x00}; // flags, duration, backlog, cues
    const byte_string all_options = {0x07, 0x00, 0x00, 0x00};
    // Two cues, for "eng" and "v1": time stamp, start, end, now, text; little-endian.
    const byte_string cue =
        concat({byte_string{0xA0, 0xBB, 0x0D, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xE8, 0x03, 0, 0, 0},
                bytes_of("\x05"
                         "a\r\n\nb")});
    const byte_string captions = concat({byte_string{0x00, 0x00, 0x00, 0x02}, cue, cue});
    const byte_string packet = build_cue_event({.text = "x"});
    const byte_string raw_captions =
        concat({byte_string{0x40, 0x00, 0x00, 0x01, static_cast<uint8_t>(packet.size())}, packet});
    const byte_string separate_streams = {0x32, 0x00, 0x00, 0x00};
    const byte_string h264 = short_stream({}, 900000);
    const byte_string wrapping = short_stream({}, (int64_t{1} << 33) - 200000);
    const byte_string mpeg2 = short_stream({.video = video_codec::mpeg2}, 900000);
    const byte_string audio = short_stream({.video = video_codec::none}, 900000);

    write_seed("program", "h264", concat({no_options, h264}));
    write_seed("program", "h264_options", concat({all_options, h264}));
    write_seed("program", "captions", concat({captions, h264}));
    write_seed("program", "raw_captions", concat({raw_captions, h264}));
    write_seed("program", "separate_streams", concat({separate_streams, h264}));
    write_seed("program", "wrap", concat({no_options, wrapping}));
    write_seed("program", "mpeg2", concat({no_options, mpeg2}));
    write_seed("program", "audio", concat({all_options, audio}));
    write_seed("psi", "tables", stream_builder{}.tables(3).bytes());
    write_seed("psi", "audio_tables",
               stream_builder({.video = video_codec::none}).tables(3).bytes());
}

void write_elementary_seeds()
{
    const byte_string sequence = concat({build_sequence_header({}), build_group_header({}),
                                         build_picture_header({}), build_slice(1, 20)});
    write_seed("pes", "mpeg2", build_pes({.pts = 900000, .payload = sequence}));
    write_seed("pes", "audio", build_pes({.stream_id = 0xC0, .pts = 900000}));

    write_seed("h264", "keyframe",
               concat({h264_access_unit_delimiter(), h264_sps_unit(), h264_pps_unit(),
                       h264_sei_unit(20), h264_slice_unit()}));
    h264_sps_fields high;
    high.profile_idc = 244;
    high.high = h264_sps_fields::high_fields{.chroma_format_idc = 3};
    high.vui = h264_vui_fields{.nal_hrd = h264_hrd_fields{}};
    write_seed("h264", "high_444",
               concat({h264_sps_unit(high), h264_pps_unit(), h264_slice_unit()}));
}

byte_string arguments(std::initializer_list<std::string_view> words)
{
    byte_string bytes;
    for (const std::string_view word : words) {
        append(bytes, bytes_of(word));
        bytes.push_back(0);
    }
    return bytes;
}

// Captions in the stream itself; where a target takes several kinds of input, the first byte says
// which this is.
void write_broadcast_seeds()
{
    std::vector<caption_bytes> pairs;
    for (const std::vector<caption_bytes>& more :
         {control_code(0x14, 0x20), control_code(0x14, 0x2E), control_code(0x14, 0x70),
          control_code(0x11, 0x2E), letters("Hello"), control_code(0x14, 0x2F),
          control_code(0x14, 0x26), control_code(0x14, 0x2D), letters("roll"),
          control_code(0x1C, 0x29), control_code(0x15, 0x2C)})
        pairs.insert(pairs.end(), more.begin(), more.end());
    byte_string cea608;
    for (const caption_bytes& pair : pairs)
        append(cea608, byte_string{0, pair.first, pair.second});
    write_seed("cea608", "pairs", cea608);

    const byte_string block = {0x98, 0x38, 0x46, 0x00, 0x61, 0x1F, 0x09, 'H', 'i',  0x0D,
                               'y',  0x90, 0x05, 0x80, 0x92, 0x01, 0x03, 'o', 0x8B, 0xFF};
    write_seed("cea708", "block",
               concat({byte_string{1, static_cast<uint8_t>(block.size())}, block, byte_string{0}}));
    byte_string cea708 = {0, 0, 0x0B, 0x34};
    for (size_t at = 0; at < block.size(); at += 2)
        append(cea708, byte_string{0, 1, block[at], block[at + 1]});
    write_seed("cea708", "packet", cea708);

    // One PES packet's payload, behind a byte that says that nothing is lost, and its length.
    const byte_string page =
        teletext_pes_payload({teletext_header({}), teletext_row(0x888, 20, "Hello"),
                              teletext_header({.page = 0x8FF, .erases = false})});
    const byte_string teletext =
        concat({byte_string{0, static_cast<uint8_t>(page.size()), 0}, page, byte_string{0xFF}});
    write_seed("teletext", "page", teletext);

    const byte_string user_data = build_a53_user_data({pairs.begin(), pairs.begin() + 9});
    const byte_string sei = build_caption_sei({user_data});
    const byte_string mpeg = concat({build_picture_header({}), build_mpeg_user_data(user_data)});
    const auto length = [](const byte_string& bytes) {
        return static_cast<uint8_t>(bytes.size());
    };
    write_seed("captions", "h264", concat({byte_string{0, 0, 0, 0, length(sei)}, sei}));
    write_seed("captions", "mpeg", concat({byte_string{1, 0, 0, 0, length(mpeg)}, mpeg}));
    write_seed("captions", "descriptors",
               concat({byte_string{2}, build_descriptor(0x56, {'d', 'e', 'u', 0x10, 0x88}),
                       build_descriptor(0x86, {0xC1, 'e', 'n', 'g', 0xC1, 0x3F, 0xFF})}));
    for (const bool is_mpeg : {false, true}) {
        stream_builder stream;
        stream.pmt.streams[0].stream_type = is_mpeg ? 0x02 : 0x1B;
        stream.pmt.streams[0].descriptors =
            build_descriptor(0x86, {0xC1, 's', 'p', 'a', 0xC1, 0x3F, 0xFF});
        stream.pmt.streams.push_back(
            {.stream_type = 0x06,
             .pid = 0x120,
             .descriptors = build_descriptor(0x56, {'d', 'e', 'u', 0x10, 0x88})});
        stream.tables(2);
        for (int i = 0; i < 9; ++i) {
            const byte_string data =
                build_a53_user_data({pairs.begin() + i, pairs.begin() + i + 1});
            const byte_string picture =
                is_mpeg ? concat({build_group_header({}), build_picture_header({}),
                                  build_mpeg_user_data(data), build_slice(1, 20)})
                        : concat({h264_sps_unit(), h264_pps_unit(), build_caption_sei({data}),
                                  h264_slice_unit()});
            stream.pes(0x101, {.pts = 900000 + i * 3003, .payload = picture});
            stream.pes(0x120, {.stream_id = 0xBD, .pts = 900000 + i * 3003, .payload = page});
        }
        write_seed("captions", is_mpeg ? "mpeg_stream" : "h264_stream",
                   concat({byte_string{4}, stream.bytes()}));
    }
}

void write_caption_seeds()
{
    comm_packet_builder cue;
    const bool built = cue.begin("vtt") && cue.add_uint64("service", 1) &&
                       cue.add_text("language", "eng") && cue.add_int64("start", 0) &&
                       cue.add_int64("end", 2000) && cue.add_uint64("mpeg timestamp", 900000) &&
                       cue.add_text("text", "Hello");
    if (!built)
        std::abort();
    const byte_string packet(cue.packet().begin(), cue.packet().end());
    write_seed("control_socket", "whole", concat({byte_string{0xFF}, packet, packet}));
    write_seed("control_socket", "byte_by_byte", concat({byte_string{0x00}, packet}));

    write_seed("webvtt", "two_cues",
               concat({byte_string(8, 0x10),
                       bytes_of("\x03"
                                "eng"),
                       byte_string(25, 0x01),
                       bytes_of("\x05"
                                "a\r\n\nb"),
                       byte_string(25, 0x02)}));

    write_seed("options", "names",
               arguments({"--frag-duration", "6", "--m3u8-name", "sub/x.m3u8", "--sap"}));
    write_seed("options", "unchecked", arguments({"--frag-name", "..", "--anon-sock"}));
}

// Behind the flags that vorn_ts_prepare's target reads: a stream whose clock jumps and whose tables
// come late, as packets in sync, once and every seven of them a hundred times, in pieces of 1316
// bytes, and in datagrams. And a flood in which packets wait for their clock all the time.
void write_prepare_seeds()
{
    clocked_stream stream;
    stream.frames(8589900000, 8).tables().frames(8589930000, 8).tables().frames(900000, 8);
    write_seed("ts_prepare", "in_sync", concat({byte_string{0x03}, stream.bytes}));
    write_seed("ts_prepare", "flood", concat({byte_string{0x42, 99}, stream.bytes}));
    clocked_stream restless({.video_pid = 0, .audio_pid = 0, .pcr_pid = 0x1F0});
    restless.tables();
    for (int64_t n = 0; n < 80; n++)
        restless.frames(n * n % 37 * 9000000, 1);
    restless.raw(byte_string(60 * packet_bytes, 0x55));
    write_seed("ts_prepare", "restless_flood", concat({byte_string{0x42, 199}, restless.bytes}));
    write_seed("ts_prepare", "one_programme", concat({byte_string{0x1B}, stream.bytes}));
    write_seed("ts_prepare", "described", concat({byte_string{0x20}, short_stream({}, 900000)}));

    byte_string pieces{0x01};
    byte_string datagrams{0x01};
    for (size_t at = 0, n = 0; at < stream.bytes.size(); at += 7 * packet_bytes, n++) {
        const auto part = std::span(stream.bytes)
                              .subspan(at, std::min(7 * packet_bytes, stream.bytes.size() - at));
        const auto number = static_cast<uint8_t>(n ^ (n == 2 || n == 3)); // two change places
        const byte_string header{0x80, 33, 0, number, 0, 0, 0, 0, 0, 0, 0, 1};
        append(pieces, concat({byte_string{165}, part})); // units of 8 bytes
        append(datagrams, concat({byte_string{166}, header, part}));
    }
    write_seed("ts_prepare", "pieces", pieces);
    write_seed("ts_prepare", "datagrams", datagrams);
}

void write_publisher_seeds()
{
    // Pieces of 4096 bytes; the second flag mends checksums, the first learns the tables before.
    const byte_string plain = {0xFF, 0x0F, 0x00};
    const byte_string mended = {0xFF, 0x0F, 0x02};
    const byte_string learning = {0xFF, 0x0F, 0x03};
    const byte_string mpeg2 = short_stream(
        {.video = video_codec::mpeg2, .audio = audio_codec::mpeg}, (int64_t{1} << 33) - 270000);
    const byte_string audio = short_stream({.video = video_codec::none}, 0);
    write_seed("publisher_fragment", "h264", concat({plain, short_stream({}, 900000)}));
    write_seed("publisher_fragment", "mpeg2", concat({learning, mpeg2}));
    write_seed("publisher_fragment", "audio", concat({mended, audio}));
    write_seed("publisher_playlist", "media",
               bytes_of("#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1.040,\n"
                        "http://h/ch%201.00000007.ts\n"));
    write_seed("publisher_playlist", "master",
               bytes_of("#EXTM3U\n#EXT-X-MEDIA:TYPE=SUBTITLES,NAME=\"E\",LANGUAGE=\"eng\","
                        "URI=\"x\"\n#EXT-X-MEDIA:TYPE=AUDIO,DEFAULT=NO,URI=\"a\"\n"
                        "#EXT-X-STREAM-INF:BANDWIDTH=1\nch1.m3u8.av.m3u8\n"));
    write_seed("publisher_playlist", "own",
               bytes_of("#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:6\n"
                        "#EXT-X-MEDIA-SEQUENCE:7\n#EXT-X-DISCONTINUITY-SEQUENCE:1\n"
                        "#EXT-X-DISCONTINUITY\n"
                        "#EXT-X-PROGRAM-DATE-TIME:2026-11-21T21:09:11.040Z\n"
                        "#EXTINF:6.00000,\n#EXT-X-BYTERANGE:9@376\nmain.7.ts\n"
                        "#EXT-X-ENDLIST\n"));
    // Samples of ANSI/SCTE 35, 14.
    const byte_string insert = {
        0xFC, 0x30, 0x2F, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xF0, 0x14,
        0x05, 0x48, 0x00, 0x00, 0x8F, 0x7F, 0xEF, 0xFE, 0x73, 0x69, 0xC0, 0x2E, 0xFE,
        0x00, 0x52, 0xCC, 0xF5, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x08, 0x43,
        0x55, 0x45, 0x49, 0x00, 0x00, 0x01, 0x35, 0x62, 0xDB, 0xA3, 0x0A,
    };
    const byte_string signal = {
        0xFC, 0x30, 0x34, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xF0, 0x05, 0x06,
        0xFE, 0x72, 0xBD, 0x00, 0x50, 0x00, 0x1E, 0x02, 0x1C, 0x43, 0x55, 0x45, 0x49, 0x48,
        0x00, 0x00, 0x8E, 0x7F, 0xCF, 0x00, 0x01, 0xA5, 0x99, 0xB0, 0x08, 0x08, 0x00, 0x00,
        0x00, 0x00, 0x2C, 0xA0, 0xA1, 0x8A, 0x34, 0x02, 0x00, 0x9A, 0xC9, 0xD1, 0x7E,
    };
    write_seed("publisher_splice", "insert", insert);
    write_seed("publisher_splice", "signal", signal);
    write_seed("publisher_subtitles", "webvtt",
               bytes_of("WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n\n"
                        "0:00:11.000 --> 0:00:12.500 line:0\na\nb\n\n"));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_fuzz_seeds DIRECTORY\n");
        return 1;
    }
    root = argv[1];
    write_stream_seeds();
    write_elementary_seeds();
    write_caption_seeds();
    write_broadcast_seeds();
    write_prepare_seeds();
    write_publisher_seeds();
    return 0;
}
