#include "tools/ts_prepare/time_line.hpp"

#include <gtest/gtest.h>

#include "tests/support/clocked_stream.hpp"
#include "tests/support/ts_builder.hpp"
#include "tests/unit/tools/ts_prepare/prepared.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;
constexpr size_t frames = 50;

// The steps from one to the next on the clock of 33 bits.
std::vector<int64_t> steps(const std::vector<int64_t>& times)
{
    std::vector<int64_t> result;
    for (size_t i = 1; i < times.size(); i++)
        result.push_back(stamp_distance(times[i - 1], times[i]));
    return result;
}

void expect_every_step(const std::vector<int64_t>& times, int64_t want)
{
    EXPECT_EQ(steps(times), std::vector<int64_t>(times.size() - 1, want));
}

byte_string without_tables(const byte_string& packets)
{
    return packets_without_pids(packets, {0, 0x1000});
}

struct jump_case {
    const char* name;
    clocked_programme programme;
    int64_t from;
    int64_t to; // time of the first frame after the jump
};

std::ostream& operator<<(std::ostream& out, const jump_case& c)
{
    return out << c.name;
}

class ClockJump : public testing::TestWithParam<jump_case>
{
};

constexpr int64_t begin = 1000 * second;
constexpr int64_t end_of_first = begin + static_cast<int64_t>(frames) * ticks_per_frame;

const jump_case jump_cases[] = {
    {"forward by 700 s", {}, begin, end_of_first + 700 * second},
    {"forward by 3 s", {}, begin, end_of_first + 3 * second},
    {"back by 100 s", {}, begin, end_of_first - 100 * second},
    {"back by 2 s, a file in a loop", {}, begin, begin},
    {"back by half a second", {}, begin, end_of_first - second / 2},
    {"back over the wrap", {}, begin, pts_modulus - 100 * second},
    {"forward over the wrap", {}, pts_modulus - 10 * second, 700 * second},
    {"to where the wrap comes next", {}, begin, pts_modulus - second},
    {"forward at the wrap", {}, pts_modulus - end_of_first + begin, 700 * second},
    {"forward behind the wrap", {}, pts_modulus - second, 700 * second},
    {"back to the wrap", {}, begin, 0},
    {"half way round the clock", {}, begin, end_of_first + pts_modulus / 2},
    {"PCR on a PID of its own", {.pcr_pid = 0x1F0}, begin, begin - 100 * second},
    {"PCR with the sound", {.audio_pid = 0, .pcr_pid = 0x1F0}, begin, begin - 100 * second},
    {"no PCR", {.pcr_pid = 0x1FFF}, begin, begin + 700 * second},
    {"sound alone", {.video_pid = 0, .pcr_pid = 0x1F0}, begin, begin + 700 * second},
    {"sound alone and no PCR", {.video_pid = 0, .pcr_pid = 0x1FFF}, begin, begin - 100 * second}};

std::string number_of_case(const testing::TestParamInfo<jump_case>& tested)
{
    return "case" + std::to_string(tested.index);
}

INSTANTIATE_TEST_SUITE_P(, ClockJump, testing::ValuesIn(jump_cases), number_of_case);

TEST_P(ClockJump, LetsTimeGoOnByOneFrame)
{
    const jump_case& c = GetParam();
    SCOPED_TRACE(c.name);
    clocked_stream stream(c.programme);
    stream.tables(2).frames(c.from, frames).tables().frames(c.to, frames);
    prepared_stream got;
    got.take(stream.bytes).end();

    EXPECT_EQ(got.preparer.counters.clock_jumps, 1U);
    EXPECT_EQ(without_tables(got.out).size(), without_tables(stream.bytes).size());
    if (c.programme.pcr_pid != no_pcr_pid && c.programme.video_pid != 0) {
        EXPECT_EQ(pcrs_of(got.out).size(), 2 * frames);
        expect_every_step(pcrs_of(got.out), ticks_per_frame);
    }
    if (c.programme.video_pid != 0) {
        EXPECT_EQ(stamps_of_pid(got.out, 0x100).size(), 2 * frames);
        expect_every_step(stamps_of_pid(got.out, 0x100), ticks_per_frame);
    } else {
        expect_every_step(stamps_of_pid(got.out, 0x101), 2160);
    }
}

TEST_P(ClockJump, KeepsPicturesAndSoundTogether)
{
    const jump_case& c = GetParam();
    SCOPED_TRACE(c.name);
    clocked_stream stream(c.programme);
    stream.tables(2).frames(c.from, frames).tables().frames(c.to, frames);
    prepared_stream got;
    got.take(stream.bytes).end();

    const std::vector<packet_stamps> before = stamps_of(stream.bytes);
    const std::vector<packet_stamps> after = stamps_of(got.out);
    ASSERT_EQ(before.size(), after.size());
    const packet_stamps& last = before.back();
    const int64_t offset = stamp_distance(last.pts, after.back().pts);
    for (size_t i = 0; i < before.size(); i++) {
        const bool is_behind = i >= before.size() / 2 + 5;
        if (!is_behind && i > before.size() / 2 - 5)
            continue; // about the jump, which the other test looks at
        const int64_t want = is_behind ? offset : 0;
        EXPECT_EQ(after[i].pid, before[i].pid);
        if (before[i].pts >= 0) {
            EXPECT_EQ(stamp_distance(before[i].pts, after[i].pts), want);
        }
        if (before[i].dts >= 0) {
            EXPECT_EQ(stamp_distance(before[i].dts, after[i].dts), want);
        }
        if (before[i].pcr >= 0) {
            EXPECT_EQ(stamp_distance(before[i].pcr, after[i].pcr), want);
        }
    }
}

TEST_P(ClockJump, IsLeftAloneOnRequest)
{
    const jump_case& c = GetParam();
    SCOPED_TRACE(c.name);
    clocked_stream stream(c.programme);
    stream.tables(2).frames(c.from, frames).tables().frames(c.to, frames);
    prepared_stream got({.keep_time = true});
    got.take(stream.bytes).end();
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
    EXPECT_TRUE(got.preparer.notices.lines.empty());
}

// What is no jump must change no byte.
void expect_unchanged(const char* name, const byte_string& stream, bool live = true)
{
    SCOPED_TRACE(name);
    for (const size_t piece : {188U, 1316U, 100000U}) {
        prepared_stream got({}, live);
        got.take(stream, piece).end();
        EXPECT_EQ(without_tables(got.out), without_tables(stream));
        EXPECT_EQ(got.preparer.counters.clock_jumps, 0U);
    }
}

TEST(TimeLine, TakesTheWrapForNoJump)
{
    for (const clocked_programme& programme :
         {clocked_programme{}, clocked_programme{.pcr_pid = 0x1F0},
          clocked_programme{.pcr_pid = no_pcr_pid}}) {
        clocked_stream stream(programme);
        stream.tables().frames(pts_modulus - second, 100);
        expect_unchanged("the wrap", stream.bytes);
    }
}

TEST(TimeLine, LeavesAStreamAloneThatPausesInTime)
{
    clocked_stream first;
    first.tables().frames(begin, frames);
    clocked_stream second_part;
    second_part.frames(end_of_first + 8 * second, frames);
    prepared_stream got;
    got.take(first.bytes).pause(8'000'000).take(second_part.bytes).end();
    EXPECT_EQ(without_tables(got.out), without_tables(concat({first.bytes, second_part.bytes})));
}

TEST(TimeLine, ChangesNothingForASingleDamagedStamp)
{
    // The field's place in the first packet of a picture: a header of 4 bytes, an adaptation field
    // of 8, a PES header of 9 before PTS and DTS.
    const struct {
        const char* name;
        uint16_t pid;
        size_t at;
    } damages[] = {
        {"PCR", 0x100, 4 + 2},
        {"PTS", 0x100, 4 + 8 + 9 + 1},
        {"DTS", 0x100, 4 + 8 + 14 + 1},
        {"PTS of sound", 0x101, 0},
    };
    for (const auto& damage : damages) {
        for (const int bit : {1, 0x10, 0x80}) {
            clocked_stream stream;
            stream.tables().frames(begin, 2 * frames);
            size_t seen = 0;
            for (size_t at = 0; at < stream.bytes.size(); at += packet_bytes) {
                uint8_t* const packet = stream.bytes.data() + at;
                const bool starts = (packet[1] & 0x40) != 0;
                const uint16_t pid = static_cast<uint16_t>((packet[1] & 0x1F) << 8 | packet[2]);
                if (!starts || pid != damage.pid || ++seen != frames)
                    continue;
                const size_t sound_at = 4 + 1u + packet[4] + 9 + 1;
                uint8_t& byte = packet[damage.at != 0 ? damage.at : sound_at];
                byte = static_cast<uint8_t>(byte ^ bit);
            }
            ASSERT_GE(seen, frames);
            expect_unchanged(damage.name, stream.bytes);
            expect_unchanged(damage.name, stream.bytes, false);
        }
    }
}

TEST(TimeLine, LeavesAStreamAloneThatChangesItsTimeByItself)
{
    clocked_stream stream;
    stream.tables().frames(begin, frames);
    clocked_stream pictures({.audio_pid = 0});
    clocked_stream sound({.video_pid = 0, .pcr_pid = no_pcr_pid});
    // One picture and its sound after the other, the sound 500 s off.
    for (size_t n = 0; n < frames; n++) {
        const int64_t time = end_of_first + static_cast<int64_t>(n) * ticks_per_frame;
        pictures.bytes.clear();
        sound.bytes.clear();
        stream.raw(pictures.frames(time, 1).bytes).raw(sound.frames(time + 500 * second, 1).bytes);
    }
    expect_unchanged("the sound", stream.bytes);
}

TEST(TimeLine, FollowsOldPacketsThatComeAfterTheJump)
{
    // The pictures change over ten frames after the clock and the sound.
    clocked_stream stream({.pcr_pid = 0x1F0});
    stream.tables().frames(begin, frames);
    const int64_t to = begin - 100 * second;
    clocked_stream clock({.video_pid = 0, .audio_pid = 0, .pcr_pid = 0x1F0});
    clocked_stream pictures({.audio_pid = 0, .pcr_pid = no_pcr_pid});
    for (int64_t n = 0; n < 60; n++) {
        clock.bytes.clear();
        pictures.bytes.clear();
        const int64_t old_time = end_of_first + n * ticks_per_frame;
        const int64_t new_time = to + n * ticks_per_frame;
        stream.raw(clock.frames(new_time, 1).bytes);
        stream.raw(pictures.frames(n < 10 ? old_time : new_time, 1).bytes);
    }
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_EQ(got.preparer.counters.clock_jumps, 1U);
    expect_every_step(pcrs_of(got.out), ticks_per_frame);
    expect_every_step(stamps_of_pid(got.out, 0x100), ticks_per_frame);
}

TEST(TimeLine, LetsAClockThatComesLaterFollowThePictures)
{
    // The PCR has a PID of its own and jumps three frames after the pictures.
    clocked_stream stream({.pcr_pid = 0x1F0});
    stream.tables().frames(begin, frames);
    const int64_t to = begin + 700 * second;
    clocked_stream clock({.video_pid = 0, .audio_pid = 0, .pcr_pid = 0x1F0});
    clocked_stream pictures({.audio_pid = 0, .pcr_pid = no_pcr_pid});
    for (int64_t n = 0; n < 60; n++) {
        clock.bytes.clear();
        pictures.bytes.clear();
        stream.raw(pictures.frames(to + n * ticks_per_frame, 1).bytes);
        if (n >= 3)
            stream.raw(clock.frames(to + n * ticks_per_frame, 1).bytes);
    }
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_EQ(got.preparer.counters.clock_jumps, 1U);
    expect_every_step(stamps_of_pid(got.out, 0x100), ticks_per_frame);
}

TEST(TimeLine, GoesOnOverManyJumps)
{
    clocked_stream stream;
    stream.tables();
    for (int n = 0; n < 60; n++)
        stream.frames(begin, frames);
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_EQ(got.preparer.counters.clock_jumps, 59U);
    expect_every_step(pcrs_of(got.out), ticks_per_frame);
    expect_every_step(stamps_of_pid(got.out, 0x100), ticks_per_frame);
}

TEST(TimeLine, GoesOnOverTheLoopsOfAShortFile)
{
    clocked_stream stream;
    stream.tables();
    for (int n = 0; n < 60; n++)
        stream.frames(begin, 10); // 0.4 s
    for (const bool live : {true, false}) {
        prepared_stream got({}, live);
        got.take(stream.bytes).end();
        EXPECT_EQ(got.preparer.counters.clock_jumps, 59U);
        expect_every_step(pcrs_of(got.out), ticks_per_frame);
        expect_every_step(stamps_of_pid(got.out, 0x100), ticks_per_frame);
    }
}

TEST(TimeLine, ClearsTheSourcesIndicatorWhereTheClockGoesOn)
{
    clocked_stream stream;
    stream.tables().frames(begin, frames);
    clocked_stream next;
    next.frames(begin, frames);
    next.bytes[5] |= discontinuity_indicator_bit; // of the first packet
    stream.raw(next.bytes);
    prepared_stream got;
    got.take(stream.bytes).end();
    for (const packet_stamps& stamps : stamps_of(got.out))
        EXPECT_FALSE(stamps.discontinuity);
}

TEST(TimeLine, SetsTheIndicatorWhereThePicturesRuleAndTheClockCannotGoOn)
{
    clocked_stream stream;
    stream.tables().frames(begin, frames);
    clocked_stream next({.delay = 63000 + 45000}); // the pictures come later after their PCR
    stream.raw(next.frames(begin, frames).bytes);
    prepared_stream got;
    got.take(stream.bytes).end();
    expect_every_step(stamps_of_pid(got.out, 0x100), ticks_per_frame);
    size_t set = 0;
    for (const packet_stamps& stamps : stamps_of(got.out))
        set += stamps.discontinuity;
    EXPECT_EQ(set, 1U);
}

TEST(TimeLine, SaysOnceWhatItDid)
{
    clocked_stream stream;
    stream.tables().frames(begin, frames).frames(end_of_first + 700 * second, frames);
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_EQ(got.preparer.notices.lines,
              (std::vector<std::string>{"vorn_ts_prepare: the clock of programme 1 jumped by "
                                        "+700.000 s; time goes on by one frame"}));
}

// One wait follows the other in each piece of a file, so that something always waits.
TEST(TimeLine, HoldsNoMoreThanItMayWhereTheClockIsNoise)
{
    const byte_string padding = null_packets(100);
    clocked_stream stream;
    stream.tables().frames(begin, 25);
    const size_t sound = stream.bytes.size();
    for (int64_t n = 25; n < 400; n++)
        stream.frames(begin + n * ticks_per_frame, 1).raw(padding);
    uint32_t noise = 1;
    for (size_t at = sound; at < stream.bytes.size(); at += packet_bytes) {
        uint8_t* const packet = stream.bytes.data() + at;
        const bool has_pcr = (packet[3] & 0x20) != 0 && packet[4] >= 7 && (packet[5] & 0x10) != 0;
        for (size_t i = 6; has_pcr && i < 10; i++) {
            noise = noise * 1664525 + 1013904223;
            packet[i] = static_cast<uint8_t>(noise >> 24);
        }
    }
    constexpr size_t piece = size_t{256} << 10;
    prepared_stream got({}, false);
    size_t most_blocks = 0;
    for (size_t at = 0; at < stream.bytes.size(); at += piece) {
        const auto part =
            std::span(stream.bytes).subspan(at, std::min(piece, stream.bytes.size() - at));
        got.take({part.begin(), part.end()}, piece);
        most_blocks = std::max(most_blocks, got.preparer.waiting.blocks.size());
    }
    constexpr size_t most_packets = waiting_most_packets + piece / ts_packet_bytes;
    EXPECT_LE(most_blocks, most_packets / packets_per_block + 2);
    EXPECT_GT(most_blocks, 0U);
    EXPECT_EQ(without_tables(got.end().out).size(), without_tables(stream.bytes).size());
}

TEST(TimeLine, HoldsPacketsForNoLongerThanItMay)
{
    // A stamp out of line, and nothing that would confirm or refute it.
    clocked_stream stream({.pcr_pid = 0x1F0});
    stream.tables().frames(begin, frames);
    clocked_stream odd({.audio_pid = 0, .pcr_pid = no_pcr_pid});
    odd.frames(begin + 700 * second, 1);
    prepared_stream got;
    got.take(stream.bytes);
    const size_t before = got.out.size();
    got.take(odd.bytes);
    EXPECT_EQ(got.out.size(), before);
    got.pause(waiting_longest_us);
    EXPECT_EQ(got.out.size(), before + odd.bytes.size());
}

} // namespace
