// The programme's tables at the start of fragments, and the network entry of the PAT.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

constexpr int64_t second = 90000;

// The packet with another continuity_counter.
byte_string stamped(byte_string packet, size_t counter)
{
    packet[3] = static_cast<uint8_t>((packet[3] & 0xF0) | (counter & 0x0F));
    return packet;
}

byte_string pat_packet(const stream_builder& stream)
{
    return packetiser{}.section(0, section_unit(build_pat(stream.pat)));
}

byte_string pmt_packet(const stream_builder& stream)
{
    return packetiser{}.section(0x1000, section_unit(build_pmt(stream.pmt)));
}

// What a fragment opened as the nth of the run begins with.
byte_string tables_of(const stream_builder& stream, size_t n)
{
    return concat({stamped(pat_packet(stream), n), stamped(pmt_packet(stream), n)});
}

TEST(FragmentTables, StartEveryFragmentWithCountersOfTheirOwn)
{
    const size_t finished = 20; // more than the counters' sixteen values
    default_run_facts facts{.durations = std::vector<std::string>(finished, "5.000"),
                            .backlog = 30};
    stream_builder stream;
    stream.start_up();
    for (size_t i = 0; i <= finished; i++) {
        facts.starts.push_back(stream.mark());
        stream.keyframe(900000 + static_cast<int64_t>(i) * 5 * second).audio(900000);
    }
    expected_run want = expected_default_run(stream, facts);
    for (size_t i = 0; i <= finished; i++) {
        byte_string& fragment = want.files[fragment_name(i)];
        fragment = concat({tables_of(stream, i), fragment});
    }
    EXPECT_TRUE(
        same_run(run_on(stream.bytes(), {"--start-pat-pmt", "--frag-backlog", "30"}), want));
}

TEST(FragmentTables, AppearNowhereElseInAFragment)
{
    stream_builder stream;
    stream.start_up();
    const size_t begin = stream.mark();
    stream.keyframe(900000);
    const size_t tables_begin = stream.mark();
    stream.tables(2);
    const size_t tables_end = stream.mark();
    stream.audio(900000).null(1);

    expected_run want =
        expected_default_run(stream, {.starts = {begin}, .master = {.resolution = "320x240"}});
    want.files[fragment_name(0)] = concat(
        {tables_of(stream, 0), stream.between(begin, tables_begin), stream.from(tables_end)});
    EXPECT_TRUE(same_run(run_on(stream.bytes(), {"--start-pat-pmt"}), want));
}

// The packets that passed last are placed, even before their sections are handled.
TEST(FragmentTables, AreTheOnesThatPassedLast)
{
    stream_builder stream;
    stream.start_up();
    const size_t first = stream.mark();
    stream.keyframe(900000);
    const byte_string old_tables = tables_of(stream, 0);
    const size_t tables_begin = stream.mark();
    stream.pat.section.version_number = 4;
    stream.pat.programmes.push_back({.number = 2, .pid = 0x200});
    stream.pmt.section.version_number = 5;
    stream.pmt.streams.push_back({.stream_type = 0x06, .pid = 0x140});
    stream.tables();
    const size_t next = stream.mark();
    stream.keyframe(900000 + 5 * second);

    expected_run want = expected_default_run(
        stream,
        {.starts = {first, next}, .durations = {"5.000"}, .master = {.resolution = "320x240"}});
    want.files[fragment_name(0)] = concat({old_tables, stream.between(first, tables_begin)});
    want.files[fragment_name(1)] = concat({tables_of(stream, 1), stream.from(next)});
    EXPECT_TRUE(same_run(run_on(stream.bytes(), {"--start-pat-pmt"}), want));
}

// The run ends with the first packet that finds no fragment: none is opened inside the opening of
// another.
TEST(FragmentTables, ThatCannotBeWrittenEndTheRun)
{
    stream_builder stream;
    stream.start_up().keyframe(900000).null(5);
    const byte_string pat = stamped(pat_packet(stream), 0);
    const size_t limit = 100; // more than an empty playlist, less than a packet
    const byte_string cut_off(pat.data(), pat.data() + limit);
    const byte_string next_cut_off = [&] {
        const byte_string next = stamped(pat, 1);
        return byte_string(next.data(), next.data() + limit);
    }();
    EXPECT_TRUE(same_run(run_program({.arguments = {"--start-pat-pmt", "--no-multilevel"},
                                      .input = {.bytes = stream.bytes()},
                                      .file_size_limit = limit}),
                         {.ending = "exit 2",
                          .standard_error = programme_lines() + "HLS out write error\n"
                                                                "I/O proc fail\n",
                          .files = {{"ch1.m3u8", media_playlist({})},
                                    {".tmp", media_playlist({})},
                                    {"ch1.00000000.ts", cut_off},
                                    {"ch1.00000001.ts", next_cut_off}}}));
}

// The table is rewritten where it stands, with the counter it came with.
TEST(NetworkEntry, IsMovedBehindTheProgrammesWhenAskedFor)
{
    const pat_programme network{.number = 0, .pid = 0x10};
    const pat_programme programme{.number = 1, .pid = 0x1000};
    stream_builder stream;
    stream.pat.programmes = {network, programme};
    stream.start_up();
    const size_t begin = stream.mark();
    stream.keyframe(900000);
    const size_t tables_begin = stream.mark();
    stream.tables().null(1);
    expected_run want =
        expected_default_run(stream, {.starts = {begin}, .master = {.resolution = "320x240"}});
    EXPECT_TRUE(same_run(run_on(stream.bytes()), want));

    stream.pat.programmes = {programme, network};
    want.files[fragment_name(0)] =
        concat({stream.between(begin, tables_begin), stamped(pat_packet(stream), 3),
                stream.from(tables_begin + packet_bytes)});
    EXPECT_TRUE(same_run(run_on(stream.bytes(), {"--pat-nit-not-first"}), want));

    want.files[fragment_name(0)] =
        concat({tables_of(stream, 0), stream.between(begin, tables_begin),
                stream.from(tables_begin + 2 * packet_bytes)});
    EXPECT_TRUE(same_run(run_on(stream.bytes(), {"--pat-nit-not-first", "--start-pat-pmt"}), want));
}

} // namespace
