// Broken input of every kind: a run ends with one of its statuses, in time, and leaves whole
// playlists.

#include <array>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

// A short programme with all that the program parses: video, audio, tables, more than one cut.
stream_builder lively_stream()
{
    stream_builder stream;
    stream.start_up();
    for (int64_t second = 0; second < 12; second++) {
        const int64_t pts = 900000 + second * 90000;
        stream.keyframe(pts, 600).audio(pts).tables();
        stream.picture(pts + 30000, 300).audio(pts + 30000).null(1);
        stream.packet({.pid = 0x11, .adaptation = adaptation_fields{.pcr = pcr_fields{}}});
    }
    return stream;
}

// Crashes and hangs show as other endings.
void expect_defined_end(const run_result& got)
{
    EXPECT_TRUE(got.ending == "exit 0" || got.ending == "exit 1" || got.ending == "exit 2")
        << got.ending << "\n"
        << got.standard_error;
    for (const auto& [name, content] : got.files) {
        if (name.ends_with(".m3u8")) {
            const std::string text(content.begin(), content.end());
            EXPECT_TRUE(text.starts_with("#EXTM3U\n#EXT-X-VERSION:4\n")) << name << ":\n" << text;
            EXPECT_TRUE(text.ends_with("\n\n")) << name << ":\n" << text;
        }
        if (name.ends_with(".ts")) {
            EXPECT_EQ(content.size() % packet_bytes, 0u) << name;
        }
    }
}

const std::vector<std::vector<std::string>> modes = {
    {}, {"--separate-streams", "--sap"}, {"--start-pat-pmt", "--pat-nit-not-first"}};

TEST(BadInput, RandomBytesEndTheRun)
{
    std::mt19937 random(1);
    for (int round = 0; round < 5; round++) {
        SCOPED_TRACE(round);
        byte_string bytes(start_up_fill_bytes + 500000);
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(random());
        expect_defined_end(run_on(bytes));
    }
}

// Packets whose headers are sound and whose insides are not.
TEST(BadInput, RandomPayloadsEndTheRun)
{
    std::mt19937 random(2);
    constexpr std::array<uint16_t, 5> pids = {0, 0x1000, 0x101, 0x102, 0x11};
    for (size_t round = 0; round < 12; round++) {
        SCOPED_TRACE(round);
        stream_builder stream;
        stream.start_up();
        for (int i = 0; i < 2000; i++) {
            ts_fields fields{.payload_unit_start = random() % 4 == 0,
                             .pid = pids[random() % pids.size()],
                             .payload = byte_string(184)};
            for (uint8_t& byte : fields.payload)
                byte = static_cast<uint8_t>(random() % 3 == 0 ? random() % 2 : random());
            stream.packet(fields);
        }
        expect_defined_end(run_on(stream.bytes(), modes[round % modes.size()]));
    }
}

TEST(BadInput, ATruncatedStreamEndsTheRun)
{
    const stream_builder stream = lively_stream();
    const size_t content = stream.bytes().size() - start_up_fill_bytes;
    for (size_t round = 0; round < 30; round++) {
        const size_t length = start_up_fill_bytes + content * round / 30 + round;
        SCOPED_TRACE(length);
        const run_result got = run_on(stream.between(0, length), modes[round % modes.size()]);
        expect_defined_end(got);
        EXPECT_EQ(got.ending, "exit 0") << got.standard_error;
    }
}

TEST(BadInput, EveryHundredthBitFlippedEndsTheRun)
{
    const stream_builder stream = lively_stream();
    for (size_t first = 0; first < 100; first += 4) {
        SCOPED_TRACE(first);
        byte_string bytes = stream.bytes();
        for (size_t bit = start_up_fill_bytes * 8 + first; bit < bytes.size() * 8; bit += 100)
            bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] ^ (0x80 >> (bit % 8)));
        expect_defined_end(run_on(bytes, modes[first / 4 % modes.size()]));
    }
}

TEST(BadInput, AFewFlippedBitsEndTheRun)
{
    const stream_builder stream = lively_stream();
    std::mt19937 random(3);
    for (size_t round = 0; round < 40; round++) {
        SCOPED_TRACE(round);
        byte_string bytes = stream.bytes();
        for (int flip = 0; flip < 40; flip++) {
            const size_t at = start_up_fill_bytes + random() % (bytes.size() - start_up_fill_bytes);
            bytes[at] = static_cast<uint8_t>(bytes[at] ^ (1u << (random() % 8)));
        }
        expect_defined_end(run_on(bytes, modes[round % modes.size()]));
    }
}

TEST(BadInput, APmtThatNamesPidsWithoutPacketsWritesNothing)
{
    stream_builder stream;
    stream.pmt.streams = {{.stream_type = 0x1B, .pid = 0x1F0}, {.stream_type = 0x0F, .pid = 0x1F1}};
    stream.start_up();
    stream.keyframe(900000).audio(900000).keyframe(1800000);
    EXPECT_TRUE(same_run(
        run_on(stream.bytes()),
        expected_default_run(stream, {.programme = {.audio_pid = 0x1F1, .video_pid = 0x1F0}})));
}

// Hostile table entries: the PAT's own PID, the null PID, one PID for everything.
TEST(BadInput, ProgrammesOnOddPidsEndTheRun)
{
    const std::vector<programme_fields> programmes = {
        {.pmt_pid = 0x1FFF}, {.pmt_pid = 0x101},    {.video_pid = 0x1000},
        {.video_pid = 0},    {.video_pid = 0x1FFF}, {.video_pid = 0x102},
    };
    for (size_t i = 0; i < programmes.size(); i++) {
        SCOPED_TRACE(i);
        stream_builder stream(programmes[i]);
        stream.start_up();
        for (int64_t step = 0; step < 4; step++)
            stream.keyframe(900000 + step * 450000).audio(900000 + step * 450000).tables();
        for (const std::vector<std::string>& mode : modes)
            expect_defined_end(run_on(stream.bytes(), mode));
    }
}

} // namespace
