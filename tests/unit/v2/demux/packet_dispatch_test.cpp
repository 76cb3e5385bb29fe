#include "v2/demux/packet_dispatch.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/dispatch_run.hpp"
#include "tests/support/pes_builder.hpp"
#include "tests/support/psi_builder.hpp"

namespace
{

byte_string packet_of(uint16_t pid)
{
    return build_ts_packet({.pid = pid});
}

const byte_string undecodable = build_ts_packet({.pid = 0x555, .adaptation_field_control = 0});

TEST(PacketDispatch, KeepsTheLookAheadUnreadUntilTheInputEnds)
{
    dispatch_run run;
    run.pm.eof = false;
    run.put(null_packets(in_mts_ahead / packet_bytes));
    EXPECT_FALSE(run.process());
    run.put(null_packets(3));
    EXPECT_TRUE(run.process());
    EXPECT_EQ(run.taken(), 3);
    run.pm.eof = true;
    EXPECT_TRUE(run.process());
    EXPECT_EQ(run.window->data, run.window->end);
    run.put(byte_string(packet_bytes - 1, 0x47));
    EXPECT_FALSE(run.process());
}

TEST(PacketDispatch, EndsAPassBehindThePacketThatBringsTheLockOrAPmt)
{
    dispatch_run run;
    packetiser packets;
    const byte_string pat = section_unit(build_pat({}));
    const byte_string pmt = section_unit(build_pmt({.streams = {{0x1B, video_pid}}}));
    for (const byte_string& unit : {pat, pat, pat})
        run.put(packets.section(ts_pat_pid, unit));
    for (const byte_string& unit : {pmt, pmt, pmt})
        run.put(packets.section(pmt_pid, unit));
    for (const std::ptrdiff_t want : {2, 5, 6}) {
        EXPECT_TRUE(run.process());
        EXPECT_EQ(run.taken(), want);
    }
    EXPECT_TRUE(run.pm.got_pmt);
}

TEST(PacketDispatch, EndsAPassBehindBytesThatAreNoPacket)
{
    dispatch_run run;
    run.put(concat({null_packets(2), byte_string(packet_bytes, 0x11), null_packets(2)}));
    EXPECT_TRUE(run.process());
    EXPECT_EQ(run.taken(), 3);
    EXPECT_TRUE(run.process());
    EXPECT_EQ(run.taken(), 5);
}

TEST(PacketDispatch, WritesNothingUntilTablesAndTheFirstCutAreThere)
{
    for (bool PIDmap::*missing : {&PIDmap::got_pat, &PIDmap::got_pmt, &PIDmap::output_started}) {
        dispatch_run run;
        run.start();
        run.pm.*missing = false;
        run.put(packet_of(0x11));
        EXPECT_TRUE(run.process());
        EXPECT_EQ(run.written(), byte_string{});
    }
}

struct filter_case {
    std::string_view name;
    ts_fields packet;
    bool is_padding = false;
    bool is_table = false;
};

TEST(PacketDispatch, FiltersPaddingAndTablesByTheOptions)
{
    const filter_case cases[] = {
        {.name = "padding", .packet = {.pid = null_pid}, .is_padding = true},
        {.name = "padding with an error",
         .packet = {.transport_error_indicator = true, .pid = null_pid},
         .is_padding = true},
        {.name = "a PAT's", .packet = {.pid = 0}, .is_table = true},
        {.name = "a PMT's", .packet = {.pid = pmt_pid}, .is_table = true},
        {.name = "another programme's PMT", .packet = {.pid = 0x1001}},
        {.name = "other information", .packet = {.pid = 0x11, .payload = counting_bytes(90)}},
        {.name = "video with an error",
         .packet = {.transport_error_indicator = true, .pid = video_pid}},
        {.name = "a clock alone",
         .packet = {.pid = 0x1ABC,
                    .adaptation = adaptation_fields{.pcr = pcr_fields{}, .stuffing = 176},
                    .has_payload = false}},
        {.name = "padding that cannot be decoded",
         .packet = {.pid = null_pid, .adaptation_field_control = 0}},
        {.name = "a PAT's that cannot be decoded",
         .packet = {.pid = 0, .adaptation = adaptation_fields{.length = 184}}},
    };
    for (const filter_case& c : cases) {
        SCOPED_TRACE(c.name);
        for (bool cmdopts::*option :
             {&cmdopts::sap, &cmdopts::no_padding, &cmdopts::start_pat_pmt}) {
            cmdopts opts;
            opts.*option = true;
            dispatch_run run(opts);
            run.start();
            const byte_string packet = build_ts_packet(c.packet);
            run.put(packet);
            EXPECT_TRUE(run.process());
            const bool filtered =
                (opts.no_padding && c.is_padding) || (opts.start_pat_pmt && c.is_table);
            EXPECT_EQ(run.bundle.main_out.opened_seq, filtered ? -1 : 0);
            EXPECT_TRUE(std::ranges::equal(run.written(), filtered ? byte_string{} : packet) ||
                        opts.start_pat_pmt); // which puts the kept tables in front
        }
    }
}

// With separate streams each has a PMT of its own, made of the one that passes.
TEST(PacketDispatch, KeepsTheTablesThatPassForTheStartsOfFragments)
{
    packetiser packets;
    const byte_string pat = packets.section(ts_pat_pid, section_unit(build_pat({})));
    const byte_string pmt = packets.section(pmt_pid, section_unit(build_pmt({})));
    const byte_string none(packet_bytes);
    for (const bool start_pat_pmt : {false, true}) {
        for (const bool separate_streams : {false, true}) {
            cmdopts opts;
            opts.start_pat_pmt = start_pat_pmt;
            opts.separate_streams = separate_streams;
            dispatch_run run(opts);
            run.start();
            run.put(concat({pat, pmt}));
            EXPECT_TRUE(run.process());
            EXPECT_TRUE(std::ranges::equal(run.pm.pat_packet, start_pat_pmt ? pat : none));
            EXPECT_TRUE(std::ranges::equal(run.pm.pmt_packet,
                                           start_pat_pmt && !separate_streams ? pmt : none));
        }
    }
}

TEST(PacketDispatch, GivesEachRenditionTheStreamItIsFor)
{
    for (const bool sap : {false, true}) {
        cmdopts opts;
        opts.separate_streams = true;
        opts.sap = sap;
        dispatch_run run(opts);
        run.start();
        // What cannot be decoded follows the packet before it; the first one, PID 0.
        run.put(undecodable);
        for (const uint16_t pid : {video_pid, audio_pid, sap_pid, uint16_t{0x11}, pmt_pid}) {
            run.put(packet_of(pid));
            run.put(undecodable);
        }
        EXPECT_TRUE(run.process());
        EXPECT_EQ(run.written("ch1.v"), concat({packet_of(video_pid), undecodable}));
        EXPECT_EQ(run.written("ch1.a"), concat({packet_of(audio_pid), undecodable}));
        EXPECT_EQ(run.written("ch1.sap"),
                  sap ? concat({packet_of(sap_pid), undecodable}) : byte_string{});
        EXPECT_EQ(run.directory.files().size(), sap ? 4u : 3u) << "with the master playlist";
    }
}

// PID 0 stands for a stream that the programme has not.
TEST(PacketDispatch, GivesNothingToARenditionWithoutAStream)
{
    cmdopts opts;
    opts.separate_streams = true;
    opts.sap = true;
    dispatch_run run(opts);
    run.start();
    run.pm.video_pid = run.pm.audio_pid = run.pm.sap_pid = 0;
    run.put(concat({undecodable, packet_of(ts_pat_pid)}));
    EXPECT_TRUE(run.process());
    EXPECT_EQ(run.directory.files().size(), 1u) << "the master playlist";
}

TEST(PacketDispatch, LooksAtAudioOnlyWhereThereIsNoVideo)
{
    const byte_string audio = packetiser{}.pes(
        audio_pid, build_pes({.stream_id = 0xC0, .pts = 900000, .payload = byte_string(50, 1)}));
    dispatch_run run;
    run.start();
    run.put(audio);
    EXPECT_TRUE(run.process());
    EXPECT_EQ(run.pm.frag_start_pts, -1);
    run.pm.video_pid = 0;
    run.put(audio);
    EXPECT_TRUE(run.process());
    EXPECT_EQ(run.pm.frag_start_pts, 900000);
}

TEST(PacketDispatch, EndsTheRunAtAPacketThatCannotBeWritten)
{
    cmdopts opts;
    opts.frag_name = "missing/ch1";
    dispatch_run run(opts);
    run.start();
    run.put(null_packets(2));
    EXPECT_FALSE(run.process());
    EXPECT_EQ(run.printed, "HLS out write error\n");
    EXPECT_EQ(run.taken(), 1);
}

TEST(PacketDispatch, EndsTheRunWhenNothingCutsAFragmentOf64MiB)
{
    for (const uint64_t bytes : {67108863u, 67108864u}) {
        dispatch_run run;
        run.bundle.main_out.frag_bytes = bytes;
        run.put(null_packets(1));
        EXPECT_EQ(run.process(), bytes < 67108864);
        EXPECT_EQ(run.printed, bytes < 67108864 ? "" : "HLS cutting is not happening\n");
    }
}

TEST(PacketDispatch, BringsTheMasterPlaylistUpToDateFirst)
{
    dispatch_run run;
    EXPECT_FALSE(run.process());
    EXPECT_TRUE(run.directory.files().contains("ch1.m3u8"));
    EXPECT_FALSE(run.bundle.master_out.master_dirty);
}

} // namespace
