#include "tools/ts_prepare/stream_preparer.hpp"

#include <gtest/gtest.h>

#include "tests/support/clocked_stream.hpp"
#include "tests/unit/tools/ts_prepare/prepared.hpp"

namespace
{

constexpr int64_t begin = 900000;

using lines = std::vector<std::string>;

// Continuity counters of a PID's packets count up by one.
void expect_counted(const byte_string& packets)
{
    for (size_t at = packet_bytes; at < packets.size(); at += packet_bytes)
        EXPECT_EQ(packets[at + 3] & 15, ((packets[at + 3 - packet_bytes] & 15) + 1) & 15);
}

byte_string without_tables(const byte_string& packets)
{
    return packets_without_pids(packets, {0, 0x1000});
}

// PAT and PMT, four times over.
void expect_tables_first(const byte_string& out)
{
    ASSERT_GE(out.size(), 8 * packet_bytes);
    for (size_t n = 0; n < 8; n++) {
        const uint8_t* const packet = out.data() + n * packet_bytes;
        EXPECT_EQ((packet[1] & 0x1F) << 8 | packet[2], n % 2 == 0 ? 0 : 0x1000);
    }
}

TEST(StreamPreparer, PutsTheTablesInFrontOfAStreamWhoseTablesComeLate)
{
    clocked_stream stream;
    stream.frames(begin, 100).tables().frames(begin + 100 * ticks_per_frame, 10);
    for (const bool live : {true, false}) {
        prepared_stream got({}, live);
        got.take(stream.bytes).end();
        expect_tables_first(got.out);
        EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
        expect_counted(packets_of_pid(got.out, 0));
        expect_counted(packets_of_pid(got.out, 0x1000));
        EXPECT_EQ(packets_of_pid(got.out, 0).size(), 5 * packet_bytes);
    }
}

TEST(StreamPreparer, FindsAPmtThatCameBeforeThePat)
{
    clocked_stream stream;
    stream.tables().frames(begin, 5);
    byte_string pat(stream.bytes.begin(), stream.bytes.begin() + packet_bytes);
    stream.bytes.erase(stream.bytes.begin(), stream.bytes.begin() + packet_bytes);
    append(stream.bytes, pat);
    prepared_stream got;
    got.take(stream.bytes);
    expect_tables_first(got.out);
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
}

TEST(StreamPreparer, RepeatsTheTablesAfterSoManyBytes)
{
    clocked_stream stream;
    stream.tables().frames(begin, 200);
    prepared_stream got({.table_bytes = 20000}, false);
    got.take(stream.bytes).end();
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
    const size_t want = 4 + 1 + stream.bytes.size() / 20116; // whole packets
    EXPECT_EQ(packets_of_pid(got.out, 0).size() / packet_bytes, want);
    EXPECT_EQ(packets_of_pid(got.out, 0x1000).size() / packet_bytes, want);
    expect_counted(packets_of_pid(got.out, 0));
    expect_counted(packets_of_pid(got.out, 0x1000));
}

TEST(StreamPreparer, RepeatsTheTablesAfterSoMuchTime)
{
    clocked_stream stream;
    stream.tables().frames(begin, 200);
    prepared_stream got({.table_us = 100'000});
    got.take(stream.bytes); // about 1316 bytes a millisecond
    const size_t pieces = stream.bytes.size() / 1316;
    EXPECT_NEAR(static_cast<double>(packets_of_pid(got.out, 0).size()) / packet_bytes,
                5.0 + static_cast<double>(pieces) / 100, 1.0);
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
}

TEST(StreamPreparer, AddsNoTablesWhereTheyComeOftenEnough)
{
    clocked_stream stream;
    stream.tables(2);
    for (int n = 0; n < 50; n++)
        stream.frames(begin + n * 4 * ticks_per_frame, 4).tables();
    prepared_stream got({.table_bytes = 20000}, false);
    got.take(stream.bytes).end();
    EXPECT_EQ(packets_of_pid(got.out, 0).size(),
              packets_of_pid(stream.bytes, 0).size() + 4 * packet_bytes);
}

TEST(StreamPreparer, DoesNotBreakASectionThatPasses)
{
    // A PMT over three packets, with other packets between them.
    pmt_fields pmt{.pcr_pid = 0x100, .streams = {{.stream_type = 0x1B, .pid = 0x100}}};
    pmt.program_info = build_descriptor(0x05, byte_string(200, 'x'));
    append(pmt.program_info, build_descriptor(0x05, byte_string(200, 'y')));
    packetiser packets;
    const byte_string pat = packets.section(0, section_unit(build_pat({})));
    const byte_string table = packets.section(0x1000, section_unit(build_pmt(pmt)));
    ASSERT_EQ(table.size(), 3 * packet_bytes);
    const byte_string filler =
        concat({packets.packet({.pid = 0x55}), packets.packet({.pid = 0x55})});
    byte_string stream = concat({pat, table});
    for (int n = 0; n < 300; n++)
        for (size_t at = 0; at < table.size(); at += packet_bytes)
            append(stream, concat({filler, std::span(table).subspan(at, packet_bytes)}));
    prepared_stream got({.table_bytes = 10000}, false);
    got.take(stream).end();

    // Each section begins in a packet of its own and is followed by its two others.
    const byte_string out = packets_of_pid(got.out, 0x1000);
    ASSERT_EQ(out.size() % table.size(), 0U);
    for (size_t at = 0; at < out.size(); at += packet_bytes)
        EXPECT_EQ((out[at + 1] & 0x40) != 0, at % table.size() == 0);
    expect_counted(out);
}

TEST(StreamPreparer, FollowsANewVersionAtOnce)
{
    clocked_stream stream;
    stream.tables().frames(begin, 20);
    pmt_fields pmt{.pcr_pid = 0x100, .streams = {{.stream_type = 0x02, .pid = 0x100}}};
    pmt.section.version_number = 1;
    packetiser packets;
    stream.raw(packets.section(0x1000, section_unit(build_pmt(pmt))));
    stream.frames(begin + 20 * ticks_per_frame, 100);
    prepared_stream got({.table_bytes = 20000}, false);
    got.take(stream.bytes).end();
    const byte_string tables = packets_of_pid(got.out, 0x1000);
    const byte_string want = build_pmt(pmt);
    const uint8_t* const last = tables.data() + tables.size() - packet_bytes;
    EXPECT_EQ(byte_string(last + 5, last + 5 + want.size()), want);
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
}

// Of two programmes the first one, whose PMT takes three packets and then names another stream.
TEST(StreamPreparer, FollowsANewVersionOfALongPmtOfOneProgramme)
{
    pmt_fields pmt{.pcr_pid = 0x1FFF, .streams = {{.stream_type = 0x1B, .pid = 0x100}}};
    pmt.program_info = build_descriptor(0x05, byte_string(200, 'x'));
    append(pmt.program_info, build_descriptor(0x05, byte_string(200, 'y')));
    packetiser packets;
    byte_string stream =
        packets.section(0, section_unit(build_pat({.programmes = {{.number = 1, .pid = 0x1000},
                                                                  {.number = 2, .pid = 0x1001}}})));
    const auto add_version = [&](uint8_t version, uint16_t pid) {
        pmt.section.version_number = version;
        pmt.streams.front().pid = pid;
        append(stream, packets.section(0x1000, section_unit(build_pmt(pmt))));
        for (int n = 0; n < 200; n++) {
            append(stream, packets.packet({.pid = 0x100}));
            append(stream, packets.packet({.pid = 0x200}));
        }
    };
    add_version(0, 0x100);
    add_version(1, 0x200);
    prepared_stream got({.programme = uint16_t{1}, .table_bytes = 10000}, false);
    got.take(stream).end();

    EXPECT_EQ(packets_of_pid(got.out, 0x100).size(), 200 * packet_bytes);
    EXPECT_EQ(packets_of_pid(got.out, 0x200).size(), 200 * packet_bytes);
    expect_counted(packets_of_pid(got.out, 0x1000));
    // The tables change between the streams.
    bool is_new = false;
    for (size_t at = 0; at < got.out.size(); at += packet_bytes) {
        const uint8_t* const packet = got.out.data() + at;
        const int pid = (packet[1] & 0x1F) << 8 | packet[2];
        if (pid == 0x1000 && (packet[1] & 0x40) != 0)
            is_new = (packet[5 + 5] >> 1 & 0x1F) == 1;
        EXPECT_NE(pid, is_new ? 0x100 : 0x200);
    }
    EXPECT_TRUE(is_new);
}

// The tables in the packets of a PID, one a packet, without those that come again.
std::vector<byte_string> tables_on(const byte_string& stream, uint16_t pid, size_t bytes)
{
    std::vector<byte_string> tables;
    const byte_string packets = packets_of_pid(stream, pid);
    expect_counted(packets);
    for (size_t at = 0; at < packets.size(); at += packet_bytes) {
        const uint8_t* const section = packets.data() + at + 5;
        const byte_string table(section, section + bytes);
        if (tables.empty() || tables.back() != table)
            tables.push_back(table);
    }
    return tables;
}

constexpr clocked_programme second_source{
    .number = 2, .pmt_pid = 0x1001, .video_pid = 0x200, .audio_pid = 0x201, .pcr_pid = 0x200};

// A source, another behind it that has PIDs, a PMT PID and a clock of its own, and the first again.
TEST(StreamPreparer, SendsAPmtThatMovesOnThePidThatTheReaderKnows)
{
    clocked_stream stream;
    clocked_stream second(second_source);
    stream.tables().frames(begin, 50);
    stream.raw(second.tables().frames(50 * begin, 50).tables().bytes);
    stream.tables().frames(90 * begin, 50);
    prepared_stream got;
    got.take(stream.bytes).end();

    EXPECT_EQ(packets_without_pids(got.out, {0, 0x1000}).size(),
              packets_without_pids(stream.bytes, {0, 0x1000, 0x1001}).size());
    const auto pat_of = [](uint16_t number) {
        return build_pat({.programmes = {{.number = number, .pid = 0x1000}}});
    };
    const byte_string pat = pat_of(1);
    EXPECT_EQ(tables_on(got.out, 0, pat.size()), (std::vector{pat, pat_of(2), pat}));
    const byte_string first_pmt = packets_of_pid(stream.bytes, 0x1000);
    const byte_string second_pmt = packets_of_pid(second.bytes, 0x1001);
    const auto section = [](const byte_string& packets) {
        return byte_string(packets.begin() + 5, packets.begin() + 5 + 26);
    };
    EXPECT_EQ(tables_on(got.out, 0x1000, 26),
              (std::vector{section(first_pmt), section(second_pmt), section(first_pmt)}));
    EXPECT_EQ(got.preparer.counters.clock_jumps, 2U);
    const std::vector<int64_t> first = stamps_of_pid(got.out, 0x100);
    ASSERT_EQ(first.size(), 100U);
    EXPECT_EQ(stamps_of_pid(got.out, 0x200).front() - first[49], ticks_per_frame);
    EXPECT_EQ(first[99] - first[0], 149 * ticks_per_frame);
}

TEST(StreamPreparer, SendsThePmtOfOneProgrammeThatMovesOnThePidThatTheReaderKnows)
{
    clocked_programme moved = second_source;
    moved.pmt_pid = 0x1002;
    clocked_stream stream(second_source);
    clocked_stream rest(moved);
    stream.tables().frames(begin, 50);
    stream.raw(rest.tables().frames(begin + 50 * ticks_per_frame, 50).bytes);
    prepared_stream got({.programme = uint16_t{2}});
    got.take(stream.bytes).end();
    EXPECT_EQ(packets_without_pids(got.out, {0, 0x1001}),
              packets_without_pids(stream.bytes, {0, 0x1001, 0x1002}));
    const byte_string pat = build_pat({.programmes = {{.number = 2, .pid = 0x1001}}});
    EXPECT_EQ(tables_on(got.out, 0, pat.size()), std::vector(1, pat));
    EXPECT_EQ(tables_on(got.out, 0x1001, 26).size(), 1U);
}

// There is no other way then.
TEST(StreamPreparer, SendsAPmtOnItsNewPidWhereAStreamHasTakenTheOldOne)
{
    clocked_programme moved = second_source;
    moved.audio_pid = 0x1000;
    clocked_stream stream;
    clocked_stream rest(moved);
    stream.tables().frames(begin, 50);
    stream.raw(rest.tables(2).frames(begin + 50 * ticks_per_frame, 50).bytes);
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_FALSE(packets_of_pid(got.out, 0x1001).empty());
    EXPECT_EQ(stamps_of_pid(got.out, 0x1000), stamps_of_pid(stream.bytes, 0x1000));
}

// 30,000 of them, with the PMT at the front. It is not looked for each time anew, so it has to come
// once more.
TEST(StreamPreparer, DoesNotSearchTheBeginningForEveryPat)
{
    clocked_stream tables;
    tables.tables();
    const auto pat = std::span(tables.bytes).first(packet_bytes);
    const auto pmt = std::span(tables.bytes).subspan(packet_bytes);
    packetiser packets;
    byte_string stream;
    append(stream, pmt);
    for (uint16_t n = 0; n < 30'000; n++)
        append(stream,
               packets.section(
                   0, section_unit(build_pat(
                          {.programmes = {
                               {.number = 1, .pid = static_cast<uint16_t>(0x20 + n % 0xF00)}}}))));
    append(stream, pat);
    prepared_stream got({}, false);
    got.take(stream, 1'000'000);
    EXPECT_EQ(got.preparer.beginning_searches, beginning_most_searches);
    EXPECT_TRUE(got.out.empty());
    got.take(tables.bytes);
    expect_tables_first(got.out);
}

TEST(StreamPreparer, LetsAStreamWithoutTablesThroughAfterSoManyBytes)
{
    clocked_stream stream;
    while (stream.bytes.size() < beginning_most_packets * packet_bytes + 1'000'000)
        stream.frames(begin, 1000);
    prepared_stream got({}, false);
    got.take(stream.bytes, 1'000'000);
    EXPECT_EQ(got.out, stream.bytes);
    EXPECT_FALSE(may_pad(got.preparer));
    EXPECT_EQ(got.preparer.notices.lines,
              (lines{"vorn_ts_prepare: no PAT and PMT in the first 8388560 bytes; the stream goes "
                     "through as it is"}));
}

TEST(StreamPreparer, LetsAStreamWithoutTablesThroughAfterSomeTime)
{
    clocked_stream stream;
    stream.frames(begin, 100);
    prepared_stream got;
    got.take(stream.bytes);
    EXPECT_TRUE(got.out.empty());
    got.pause(beginning_longest_us);
    EXPECT_EQ(got.out, stream.bytes);

    // They are put in as soon as they do come.
    clocked_stream late;
    late.tables();
    got.take(late.bytes);
    EXPECT_TRUE(may_pad(got.preparer));
    EXPECT_EQ(packets_of_pid(got.out, 0).size(), 5 * packet_bytes);
}

// Bytes that are no packets are no beginning.
TEST(StreamPreparer, CountsTheTimeForTheTablesFromTheFirstPacketOn)
{
    clocked_stream stream;
    stream.frames(begin, 20).tables().frames(begin + 20 * ticks_per_frame, 20);
    prepared_stream got;
    got.take(byte_string(1000, 0)).pause(2 * beginning_longest_us).take(stream.bytes);
    expect_tables_first(got.out);
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
}

TEST(StreamPreparer, LetsAShortStreamWithoutTablesThroughAtItsEnd)
{
    clocked_stream stream;
    stream.frames(begin, 10);
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_EQ(got.out, stream.bytes);
}

// Two programmes with tables of both, a service description, an ECM and null packets.
byte_string two_programmes()
{
    packetiser packets;
    clocked_stream first;
    clocked_stream second(
        {.number = 2, .pmt_pid = 0x1001, .video_pid = 0x200, .audio_pid = 0x201, .pcr_pid = 0x202});
    pmt_fields pmt{
        .pcr_pid = 0x202,
        .program_info = build_descriptor(0x09, {0x12, 0x34, 0xE7, 0x00}),
        .streams = {{.stream_type = 0x1B, .pid = 0x200}, {.stream_type = 0x0F, .pid = 0x201}}};
    pmt.section.table_id_extension = 2;
    first.tables();
    second.tables();
    const byte_string first_pmt = packets_of_pid(first.bytes, 0x1000);
    first.bytes.clear();
    second.bytes.clear();
    byte_string out;
    for (int n = 0; n < 20; n++) {
        append(out, packets.section(0, section_unit(build_pat(
                                           {.programmes = {{.number = 0, .pid = 0x10},
                                                           {.number = 1, .pid = 0x1000},
                                                           {.number = 2, .pid = 0x1001}}}))));
        append(out, first_pmt);
        append(out, packets.section(0x1001, section_unit(build_pmt(pmt))));
        append(out, packets.packet({.pid = 0x11}));
        append(out, packets.packet({.pid = 0x700}));
        append(out, null_packets(3));
        first.bytes.clear();
        second.bytes.clear();
        append(out, first.frames(begin + n * ticks_per_frame, 1).bytes);
        append(out, second.frames(begin + n * ticks_per_frame, 1).bytes);
    }
    return out;
}

TEST(StreamPreparer, LetsOneProgrammeOfTwoThrough)
{
    const byte_string stream = two_programmes();
    prepared_stream got({.programme = 2});
    got.take(stream).end();
    EXPECT_EQ(packets_without_pids(got.out, {0, 0x1001}),
              packets_without_pids(stream, {0, 0x1000, 0x1001, 0x100, 0x101, null_pid}));
    const byte_string pats = packets_of_pid(got.out, 0);
    const byte_string want = build_pat({.programmes = {{.number = 2, .pid = 0x1001}}});
    for (size_t at = 0; at < pats.size(); at += packet_bytes)
        EXPECT_EQ(byte_string(pats.begin() + static_cast<ptrdiff_t>(at) + 5,
                              pats.begin() + static_cast<ptrdiff_t>(at + 5 + want.size())),
                  want);
    EXPECT_EQ(pats.size() / packet_bytes, 4 + 20U);
    EXPECT_EQ(packets_of_pid(got.out, 0x1001).size() / packet_bytes, 4 + 20U);
    expect_counted(pats);
    expect_counted(packets_of_pid(got.out, 0x1001));
}

TEST(StreamPreparer, LeavesOutServiceInformationOnRequest)
{
    prepared_stream got({.programme = 2, .drop_service_information = true});
    got.take(two_programmes()).end();
    EXPECT_TRUE(packets_of_pid(got.out, 0x11).empty());
    EXPECT_FALSE(packets_of_pid(got.out, 0x700).empty());
}

TEST(StreamPreparer, LetsNothingThroughOfAStreamThatLacksTheProgramme)
{
    prepared_stream got({.programme = 7});
    got.take(two_programmes()).end();
    EXPECT_TRUE(got.out.empty());
    EXPECT_FALSE(may_pad(got.preparer));
    EXPECT_EQ(got.preparer.notices.lines,
              (lines{"vorn_ts_prepare: programme 7 is not there: nothing goes through until it is; "
                     "the PAT lists: 1, 2"}));
}

TEST(StreamPreparer, SaysWhatIsWrongWithTheInput)
{
    clocked_stream stream;
    stream.tables().frames(begin, 20);
    byte_string bytes = stream.bytes;
    bytes[12 * packet_bytes + 1] |= 0x80; // transport_error_indicator
    bytes.erase(bytes.begin() + 30 * packet_bytes, bytes.begin() + 31 * packet_bytes);
    bytes.insert(bytes.begin() + 40 * packet_bytes, {1, 2, 3});
    prepared_stream got;
    got.take(bytes).pause(2'000'000).pause(1'000'000).take(stream.bytes);
    EXPECT_EQ(got.preparer.counters.transport_errors, 1U);
    EXPECT_GE(got.preparer.counters.continuity_errors, 1U);
    EXPECT_EQ(got.preparer.counters.sync_losses, 1U);
    EXPECT_EQ(got.preparer.counters.skipped_bytes, 3U);
    ASSERT_EQ(got.preparer.notices.lines.size(), 6U);
    EXPECT_EQ(got.preparer.notices.lines[0],
              "vorn_ts_prepare: a packet came with transport_error_indicator");
    EXPECT_EQ(got.preparer.notices.lines[1].substr(0, 41),
              "vorn_ts_prepare: continuity error on PID ");
    EXPECT_EQ(got.preparer.notices.lines[2], "vorn_ts_prepare: no packet where one should begin");
    EXPECT_EQ(got.preparer.notices.lines[3], "vorn_ts_prepare: no input for 2.0 s");
    EXPECT_EQ(got.preparer.notices.lines[4], "vorn_ts_prepare: the input is back after 3.0 s");
    EXPECT_EQ(got.preparer.notices.lines[5].substr(0, 45),
              "vorn_ts_prepare: the clock of programme 1 jum");
}

TEST(StreamPreparer, SaysThatNothingHasComeAtAll)
{
    prepared_stream got;
    got.pause(100'000).pause(2'000'000);
    EXPECT_EQ(got.preparer.notices.lines, (lines{"vorn_ts_prepare: no input for 2.0 s"}));
}

TEST(StreamPreparer, SaysOnceThatTheInputIsNoTransportStream)
{
    prepared_stream got;
    got.take(byte_string(65535, 0));
    EXPECT_TRUE(got.preparer.notices.lines.empty());
    got.take(byte_string(1, 0));
    for (int n = 0; n < 20; n++)
        got.pause(1'000'000).take(byte_string(100'000, 0));
    EXPECT_EQ(got.preparer.notices.lines,
              (lines{"vorn_ts_prepare: the input is no transport stream: no packets in 65536 "
                     "bytes"}));

    clocked_stream stream;
    stream.tables().frames(begin, 20);
    got.take(stream.bytes).take(byte_string(70'000, 0));
    ASSERT_EQ(got.preparer.notices.lines.size(), 3U);
    EXPECT_EQ(got.preparer.notices.lines[1], "vorn_ts_prepare: no packet where one should begin");
    EXPECT_EQ(got.preparer.notices.lines[2].substr(0, 51),
              "vorn_ts_prepare: the input is no transport stream: ");
}

TEST(StreamPreparer, SaysThatTheProgrammeHasGoneFromThePat)
{
    clocked_stream stream;
    stream.tables().frames(begin, 20);
    packetiser packets;
    stream.raw(packets.section(0, section_unit(build_pat({.programmes = {}}))));
    prepared_stream got;
    got.take(stream.bytes).end();
    EXPECT_EQ(got.preparer.notices.lines,
              (lines{"vorn_ts_prepare: the PAT names no programme any more"}));
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
}

TEST(StreamPreparer, TakesReorderedAndDoubledDatagramsApart)
{
    clocked_stream stream;
    stream.tables().frames(begin, 100);
    std::vector<byte_string> datagrams;
    for (size_t at = 0; at < stream.bytes.size(); at += 7 * packet_bytes) {
        const auto n = static_cast<uint8_t>(datagrams.size());
        byte_string datagram{0x80, 33, 0, n, 0, 0, 0, 0, 0, 0, 0, 9};
        append(datagram, std::span(stream.bytes)
                             .subspan(at, std::min(7 * packet_bytes, stream.bytes.size() - at)));
        datagrams.push_back(datagram);
    }
    ASSERT_GT(datagrams.size(), 30U);
    std::swap(datagrams[10], datagrams[13]);
    datagrams.insert(datagrams.begin() + 20, datagrams[19]);
    prepared_stream got;
    for (const byte_string& datagram : datagrams)
        got.take(datagram, datagram.size());
    got.end();
    EXPECT_EQ(without_tables(got.out), without_tables(stream.bytes));
    EXPECT_EQ(got.preparer.counters.rtp_duplicates, 1U);
    EXPECT_EQ(got.preparer.counters.rtp_lost, 0U);
    EXPECT_EQ(got.preparer.counters.continuity_errors, 0U);
}

TEST(StreamPreparer, TakesDatagramsOfAnotherInputThatCountsAFewBehind)
{
    clocked_stream stream;
    stream.tables().frames(begin, 40);
    const auto datagram = [&](uint8_t n) {
        byte_string bytes{0x80, 33, 0, n, 0, 0, 0, 0, 0, 0, 0, 9};
        append(bytes, std::span(stream.bytes).subspan(n * 7 * packet_bytes, 7 * packet_bytes));
        return bytes;
    };
    prepared_stream got;
    for (uint8_t n = 0; n < 8; n++)
        got.take(datagram(n), 2000);
    got.end();
    const size_t before = without_tables(got.out).size();
    for (uint8_t n = 2; n < 6; n++)
        got.take(datagram(n), 2000);
    EXPECT_EQ(got.preparer.counters.rtp_duplicates, 0U);
    EXPECT_EQ(without_tables(got.out).size(), before + 4 * 7 * packet_bytes);
}

// The last datagram came twice, so nothing of the second one goes out.
TEST(StreamPreparer, TakesPlainPacketsBehindDatagrams)
{
    clocked_stream stream;
    stream.tables().frames(begin, 20);
    byte_string datagram{0x80, 33, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
    append(datagram, std::span(stream.bytes).first(7 * packet_bytes));
    prepared_stream got;
    got.take(datagram).take(datagram);
    clocked_stream plain;
    plain.tables(100).frames(begin, 500);
    got.take(plain.bytes);
    const size_t want = without_tables(plain.bytes).size();
    EXPECT_GT(without_tables(got.out).size(), want - 65536);
    EXPECT_EQ(got.preparer.framing.format, packet_format::plain);
}

TEST(StreamPreparer, ReleasesDatagramsWhoseForerunnerDoesNotCome)
{
    clocked_stream stream;
    stream.tables().frames(begin, 20);
    prepared_stream got;
    for (uint8_t n = 0; n < 5; n++) {
        if (n == 3)
            continue;
        byte_string datagram{0x80, 33, 0, n, 0, 0, 0, 0, 0, 0, 0, 9};
        append(datagram, std::span(stream.bytes).subspan(n * 7 * packet_bytes, 7 * packet_bytes));
        got.take(datagram, datagram.size());
    }
    const size_t before = got.out.size();
    got.pause(rtp_longest_wait_us);
    EXPECT_EQ(got.out.size(), before + 7 * packet_bytes);
    EXPECT_EQ(got.preparer.counters.rtp_lost, 1U);
}

TEST(StreamPreparer, TakesAnotherInputAfterTheEndOfOne)
{
    clocked_stream stream;
    stream.tables().frames(begin, 50);
    prepared_stream got;
    byte_string cut(stream.bytes.begin(), stream.bytes.end() - 100);
    got.take(cut).end().take(stream.bytes).end();
    EXPECT_EQ(without_tables(got.out).size(),
              2 * without_tables(stream.bytes).size() - packet_bytes);
    EXPECT_EQ(got.preparer.counters.clock_jumps, 1U);
}

} // namespace
