// Sync lost and found again in the middle of a run.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

const std::string sync_fail = "MTS sync fail\n";

// A keyframe, then `garbage`, then packets: null packets hold no byte 0x47 but their first.
struct interrupted_stream {
    explicit interrupted_stream(const byte_string& garbage)
    {
        stream.start_up();
        begin = stream.mark();
        stream.keyframe(900000).null(3);
        garbage_begin = stream.mark();
        stream.raw(garbage);
        garbage_end = stream.mark();
        stream.null(20);
    }

    // The run when all from the garbage's begin up to `resumed` is lost.
    [[nodiscard]] expected_run want(size_t resumed, const std::string& lines) const
    {
        expected_run run = expected_default_run(stream, {.starts = {begin}});
        run.files[fragment_name(0)] =
            concat({stream.between(begin, garbage_begin), stream.from(resumed)});
        run.standard_error = programme_lines() + lines + "Stream EOF\n";
        // The pass that ends with the garbage is followed by one that rewrites the master playlist.
        run.files["ch1.m3u8"] = master_playlist({.resolution = "320x240"});
        return run;
    }

    stream_builder stream;
    size_t begin = 0;
    size_t garbage_begin = 0;
    size_t garbage_end = 0;
};

TEST(Synchronisation, GarbageWithoutSyncBytesCostsThePacketItRunsInto)
{
    // 188 bytes from the garbage's begin are passed over as one packet.
    for (const size_t count : {1u, 100u, 187u}) {
        SCOPED_TRACE(count);
        const interrupted_stream broken(byte_string(count, 0));
        EXPECT_TRUE(same_run(run_on(broken.stream.bytes()),
                             broken.want(broken.garbage_end + packet_bytes, "")));
    }
}

TEST(Synchronisation, GarbageOfWholePacketsCostsNothingElse)
{
    for (const size_t count : {188u, 376u, 1000u}) {
        SCOPED_TRACE(count);
        const interrupted_stream broken(byte_string(count, 0));
        EXPECT_TRUE(same_run(run_on(broken.stream.bytes()), broken.want(broken.garbage_end, "")));
    }
}

TEST(Synchronisation, EachFalseSyncByteIsReportedAndPassedOver)
{
    byte_string garbage(400, 0);
    garbage[200] = 0x47;
    garbage[201] = 0x47;
    garbage[390] = 0x47;
    const interrupted_stream broken(garbage);
    EXPECT_TRUE(same_run(run_on(broken.stream.bytes()),
                         broken.want(broken.garbage_end, sync_fail + sync_fail + sync_fail)));
}

// Eight sync bytes in a row are wanted; seven with the right distance are not enough.
TEST(Synchronisation, SevenSyncBytesInARowAreNotEnough)
{
    byte_string garbage(188 + 7 * 188 + 10, 0);
    for (size_t k = 0; k < 7; k++)
        garbage[188 + k * 188] = 0x47;
    const interrupted_stream broken(garbage);
    const run_result got = run_on(broken.stream.bytes());
    // Each of the seven is tried, and reported, in turn.
    std::string lines;
    for (size_t k = 0; k < 7; k++)
        lines += sync_fail;
    EXPECT_TRUE(same_run(got, broken.want(broken.garbage_end, lines)));
}

TEST(Synchronisation, ALostByteCostsTheTwoPacketsBehindIt)
{
    stream_builder stream;
    stream.start_up();
    const size_t begin = stream.mark();
    stream.keyframe(900000).null(3);
    const size_t broken = stream.mark();
    byte_string short_packet = null_packets(1);
    short_packet.pop_back();
    stream.raw(short_packet);
    const size_t behind = stream.mark();
    stream.null(20);

    // The short packet takes the first packet's sync byte as its last byte. The 188 bytes from the
    // first packet's second byte on are no packet; the second packet's sync byte goes with them.
    expected_run want = expected_default_run(stream, {.starts = {begin}});
    want.files[fragment_name(0)] = concat(
        {stream.between(begin, broken + packet_bytes), stream.from(behind + 2 * packet_bytes)});
    want.files["ch1.m3u8"] = master_playlist({.resolution = "320x240"});
    EXPECT_TRUE(same_run(run_on(stream.bytes()), want));
}

TEST(Synchronisation, AnIncompleteLastPacketIsDropped)
{
    for (const size_t count : {1u, 100u, 187u}) {
        SCOPED_TRACE(count);
        stream_builder stream;
        stream.start_up();
        const size_t begin = stream.mark();
        stream.keyframe(900000).null(3);
        expected_run want = expected_default_run(stream, {.starts = {begin}});
        byte_string tail = null_packets(1);
        tail.resize(count);
        stream.raw(tail);
        EXPECT_TRUE(same_run(run_on(stream.bytes()), want));
    }
}

struct tail_case {
    std::string_view name;
    size_t bytes;
    std::string want_ending;
    std::string want_line;
};

// The first 188 bytes are passed over as a packet. Less than a packet behind them ends the run
// well; more makes one further pass, which finds no sync byte and then no packet.
TEST(Synchronisation, GarbageBehindTheLastPacketMayFailThePassThatMeetsIt)
{
    const tail_case cases[] = {
        {.name = "less than two packets",
         .bytes = 375,
         .want_ending = "exit 0",
         .want_line = "Stream EOF\n"},
        {.name = "two packets",
         .bytes = 376,
         .want_ending = "exit 2",
         .want_line = "I/O proc fail\n"},
    };
    for (const tail_case& c : cases) {
        SCOPED_TRACE(c.name);
        stream_builder stream;
        stream.start_up();
        const size_t begin = stream.mark();
        stream.keyframe(900000).null(3);
        expected_run want = expected_default_run(stream, {.starts = {begin}});
        want.ending = c.want_ending;
        want.standard_error = programme_lines() + c.want_line;
        if (c.want_ending == "exit 2")
            want.files["ch1.m3u8"] = master_playlist({.resolution = "320x240"});
        stream.raw(byte_string(c.bytes, 0));
        EXPECT_TRUE(same_run(run_on(stream.bytes()), want));
    }
}

} // namespace
