#include "v2/demux/fragment_tables.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/bytes.hpp"
#include "tests/support/working_directory.hpp"
#include "v2/hls/hls_output.hpp"

namespace
{

kept_packet kept(uint8_t content)
{
    kept_packet packet{};
    packet.fill(content);
    packet[0] = 0x47;
    packet[3] = 0xDE; // the high half must be kept
    return packet;
}

byte_string stamped(kept_packet packet, uint8_t counter)
{
    packet[3] = static_cast<uint8_t>(0xD0 | counter);
    return {packet.begin(), packet.end()};
}

// A run in which all tables are kept, and an output that wants them.
struct tables_run {
    tables_run()
    {
        pm.got_pat = pm.got_pmt = true;
        pm.pat_packet = kept('P');
        pm.pmt_packet = kept('m');
        pm.audio_pmt_packet = kept('a');
        pm.sap_pmt_packet = kept('s');
        output.base_name = "ch1";
        output.start_pat_pmt = true;
    }

    scratch_working_directory here; // outlives the output
    PIDmap pm;
    HLSoutput output;
};

TEST(FragmentTables, CountOnWithEveryFragmentOfTheRun)
{
    tables_run run;
    run.pm.pat_cc = 0x2F;
    run.pm.pmt_cc = 0xFF;
    ASSERT_TRUE(run.output.open_fragment(run.pm));
    EXPECT_EQ(run.output.frag_bytes, 2u * 188);
    EXPECT_EQ(run.here.files().at("ch1.00000000.ts"),
              concat({stamped(kept('P'), 15), stamped(kept('m'), 15)}));
    EXPECT_EQ(run.pm.pat_cc, 0x30);
    EXPECT_EQ(run.pm.pmt_cc, 0);
}

struct tables_case {
    std::string_view name;
    std::string_view want; // P the PAT, m, a, s the PMT of the rendition
    void (*change)(tables_run& run);
};

TEST(FragmentTables, AreThePatAndThePmtOfTheRendition)
{
    const tables_case cases[] = {
        {"main", "Pm",
         [](tables_run&) {
         }},
        {"audio", "Pa",
         [](tables_run& run) {
             run.output.audio_only = true;
         }},
        {"secondary audio", "Ps",
         [](tables_run& run) {
             run.output.is_sap = true;
         }},
        {"secondary audio first", "Ps",
         [](tables_run& run) {
             run.output.audio_only = run.output.is_sap = true;
         }},
        {"no PAT seen", "m",
         [](tables_run& run) {
             run.pm.got_pat = false;
         }},
        {"no PMT seen", "P",
         [](tables_run& run) {
             run.pm.got_pmt = false;
         }},
        {"PAT not kept", "m",
         [](tables_run& run) {
             run.pm.pat_packet = {};
         }},
        {"PMT not kept, and no other in its place", "P",
         [](tables_run& run) {
             run.output.audio_only = true;
             run.pm.audio_pmt_packet = {};
         }},
        {"main not kept", "P",
         [](tables_run& run) {
             run.pm.pmt_packet = {};
         }},
        {"no transport stream", "",
         [](tables_run& run) {
             run.output.carries_ts = false;
         }},
        {"not asked for", "",
         [](tables_run& run) {
             run.output.start_pat_pmt = false;
         }},
    };
    for (const tables_case& c : cases) {
        SCOPED_TRACE(c.name);
        tables_run run;
        c.change(run);
        ASSERT_TRUE(run.output.open_fragment(run.pm));
        byte_string want;
        for (const char content : c.want)
            append(want, stamped(kept(static_cast<uint8_t>(content)), 0));
        EXPECT_EQ(run.here.files().at("ch1.00000000.ts"), want);
    }
}

TEST(FragmentTables, KeepAPacketWithAllItsBits)
{
    byte_string bytes = counting_bytes(188);
    mpeg_ts_packet pkt;
    pkt.raw = bytes.data();
    kept_packet packet{};
    keep_packet(packet, pkt);
    EXPECT_EQ(byte_string(packet.begin(), packet.end()), bytes);
}

} // namespace
