#include "v2/demux/programme_selection.hpp"

#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/captured_stderr.hpp"
#include "tests/support/packetiser.hpp"
#include "tests/support/psi_builder.hpp"
#include "v2/base/text.hpp"

namespace
{

constexpr uint16_t pmt_pid = 0x1000;

// The assemblers of a run, fed as the dispatch feeds them.
struct selection_run {
    selection_run() { register_psi(pm, ts_pat_pid, psi_kind_pat); }

    // The packets of one section, if its PID is listened to.
    void send(uint16_t pid, const byte_string& section)
    {
        byte_string sent = packets.section(pid, section_unit(section));
        printed += stderr_of([&] {
            for (size_t at = 0; at < sent.size(); at += packet_bytes) {
                mpeg_ts_packet pkt;
                EXPECT_NE(mpeg_ts_decode(pkt, sent.data() + at, packet_bytes), 0);
                const auto state = pm.psi.find(pid);
                EXPECT_TRUE(state == pm.psi.end() ||
                            assemble_psi(state->second, pm, pkt, stop, opts));
            }
        });
    }

    // Twice: a section of one packet is handled when the next one begins.
    void send_twice(uint16_t pid, const byte_string& section)
    {
        send(pid, section);
        send(pid, section);
    }

    // A PAT of one programme, and then this PMT of it.
    void select(const pmt_fields& pmt)
    {
        send_twice(ts_pat_pid, build_pat({}));
        stop = false;
        send_twice(pmt_pid, build_pmt(pmt));
    }

    // PID and kind of the streams that are followed.
    [[nodiscard]] std::string followed() const
    {
        return format_text("video %x/%u audio %x/%u sap %x/%u", unsigned{pm.video_pid},
                           pm.video_pid != 0 ? pm.video_kind : 0, unsigned{pm.audio_pid},
                           pm.audio_pid != 0 ? pm.audio_kind : 0, unsigned{pm.sap_pid},
                           pm.sap_pid != 0 ? pm.sap_kind : 0);
    }

    cmdopts opts;
    PIDmap pm;
    bool stop = false;
    std::string printed;
    packetiser packets;
};

struct lock_case {
    std::string_view name;
    std::vector<pat_programme> programmes;
    std::string want;
};

TEST(ProgrammeSelection, LocksOntoTheFirstProgrammeOfThePat)
{
    const lock_case cases[] = {
        {"the only one", {{1, 0x1000}}, "0001h PMT 1000h"},
        {"the first of two", {{0x1234, 0x1FFE}, {2, 0x20}}, "1234h PMT 1ffeh"},
        {"behind the network entry", {{0, 0x10}, {7, 0x300}, {1, 0x1000}}, "0007h PMT 0300h"},
        {"behind an entry with PID 0", {{3, 0}, {4, 0x400}}, "0004h PMT 0400h"},
        {"whatever the reserved bits are", {{5, 0x500, 0}}, "0005h PMT 0500h"},
    };
    for (const lock_case& c : cases) {
        SCOPED_TRACE(c.name);
        selection_run run;
        run.send(ts_pat_pid, build_pat({.programmes = c.programmes}));
        EXPECT_FALSE(run.stop) << "a table of one packet is complete when the next one begins";
        run.send(ts_pat_pid, build_pat({.programmes = c.programmes}));
        EXPECT_TRUE(run.stop);
        EXPECT_TRUE(run.pm.got_pat);
        EXPECT_EQ(run.printed, "PAT: Locking onto Program " + c.want + "\n");
        EXPECT_EQ(run.pm.psi.at(run.pm.pmt_pid).kind, psi_kind_pmt);
    }
}

TEST(ProgrammeSelection, KeepsTheLockWhateverLaterPatsSay)
{
    selection_run run;
    run.send_twice(ts_pat_pid, build_pat({}));
    run.stop = false;
    run.send_twice(ts_pat_pid, build_pat({.section = {.version_number = 1},
                                          .programmes = {{2, 0x200}, {1, 0x300}}}));
    EXPECT_FALSE(run.stop);
    EXPECT_EQ(run.pm.pmt_pid, pmt_pid);
    EXPECT_EQ(run.pm.program_number, 1u);
    EXPECT_EQ(run.pm.psi.size(), 2u);
}

struct stream_case {
    std::string_view name;
    std::vector<pmt_stream> streams;
    std::string want;
};

TEST(ProgrammeSelection, TakesTheFirstVideoAndTheFirstTwoAudiosOfThePmt)
{
    const stream_case cases[] = {
        {"MPEG-2 video before H.264",
         {{0x02, 0x111}, {0x1B, 0x112}, {0x0F, 0x102}},
         "video 111/2 audio 102/2 sap 0/0"},
        {"H.264 before MPEG-1 video",
         {{0x1B, 0x111}, {0x01, 0x112}},
         "video 111/1 audio 0/0 sap 0/0"},
        {"MPEG-1 video, audio of MPEG-1 and MPEG-2",
         {{0x01, 0x111}, {0x04, 0x112}, {0x03, 0x113}},
         "video 111/2 audio 112/1 sap 113/1"},
        {"two AAC streams and MPEG audio",
         {{0x0F, 0x121}, {0x0F, 0x122}, {0x03, 0x123}, {0x1B, 0x124}},
         "video 124/1 audio 121/2 sap 122/2"},
        {"streams of other types",
         {{0x24, 0x131}, {0x06, 0x132}, {0x81, 0x133}, {0x11, 0x134}, {0x10, 0x135}, {0x1B, 0x136}},
         "video 136/1 audio 0/0 sap 0/0"},
        {"no video", {{0x03, 0x141}}, "video 0/0 audio 141/1 sap 0/0"},
        {"descriptors are passed over",
         {{0x05, 0x151, {0x1B, 0xE1, 0x77, 0xF0, 0x00}}, {0x1B, 0x152}},
         "video 152/1 audio 0/0 sap 0/0"},
        {"none", {}, "video 0/0 audio 0/0 sap 0/0"},
    };
    for (const stream_case& c : cases) {
        SCOPED_TRACE(c.name);
        selection_run run;
        run.select({.streams = c.streams});
        EXPECT_TRUE(run.stop);
        EXPECT_TRUE(run.pm.got_pmt);
        EXPECT_EQ(run.followed(), c.want);
    }
}

TEST(ProgrammeSelection, ChoosesAnewWithEveryPmtAndNothingFromOneThatCannotBeDecoded)
{
    selection_run run;
    run.select({.streams = {{0x1B, 0x101}, {0x0F, 0x102}, {0x0F, 0x103}}});
    run.send_twice(pmt_pid, build_pmt({.streams = {{0x03, 0x201}}}));
    EXPECT_EQ(run.followed(), "video 0/0 audio 201/1 sap 0/0");
    run.send(pmt_pid, build_pmt({.streams = {{0x1B, 0x301}}, .left_over = {0x1B}}));
    run.stop = false;
    run.send(pmt_pid, build_pmt({.streams = {{0x1B, 0x301}}}));
    EXPECT_EQ(run.followed(), "video 0/0 audio 0/0 sap 0/0");
    EXPECT_FALSE(run.stop);
    run.send(pmt_pid, build_pmt({.streams = {{0x1B, 0x301}}}));
    EXPECT_EQ(run.followed(), "video 301/1 audio 0/0 sap 0/0");
}

TEST(ProgrammeSelection, APmtOfSeveralPacketsIsHandledWithItsLastAndNotAgain)
{
    selection_run run;
    run.send_twice(ts_pat_pid, build_pat({}));
    run.send(pmt_pid, build_pmt({.program_info = build_descriptor(0x05, counting_bytes(200)),
                                 .streams = {{0x1B, 0x101}}}));
    EXPECT_EQ(run.followed(), "video 101/1 audio 0/0 sap 0/0");
    run.stop = false;
    run.send(pmt_pid, build_pmt({}));
    EXPECT_FALSE(run.stop);
}

struct ignored_case {
    std::string_view name;
    uint16_t pid;
    byte_string section;
};

TEST(ProgrammeSelection, IgnoresSectionsThatDoNotApply)
{
    const auto pat = [](const section_fields& fields) {
        return build_pat({.section = fields, .programmes = {{9, 0x900}}});
    };
    const auto pmt = [](const section_fields& fields) {
        return build_pmt({.section = fields, .streams = {{0x1B, 0x999}}});
    };
    const ignored_case cases[] = {
        {"PAT of another table_id", 0, pat({.table_id = 1})},
        {"PAT without section_syntax_indicator", 0, pat({.section_syntax_indicator = false})},
        {"PAT with the private bit", 0, pat({.private_bit = true})},
        {"PAT to come", 0, pat({.current_next_indicator = false})},
        {"PAT with a bad checksum", 0, pat({.crc = 0x12345678})},
        {"PAT without programmes", 0, build_pat({.programmes = {}})},
        {"PAT with only the network entry", 0, build_pat({.programmes = {{0, 0x10}}})},
        {"PAT on another PID", 0x11, pat({})},
        {"PMT of another table_id", pmt_pid, pmt({.table_id = 0x42})},
        {"PMT to come", pmt_pid, pmt({.table_id = 2, .current_next_indicator = false})},
        {"PMT with a bad checksum", pmt_pid, pmt({.table_id = 2, .crc = 1})},
        {"PMT of another programme's PID", 0x1001, pmt({.table_id = 2})},
        {"PMT that cannot be decoded", pmt_pid,
         build_pmt({.streams = {{0x1B, 0x999}}, .left_over = {0x0F}})},
    };
    for (const ignored_case& c : cases) {
        SCOPED_TRACE(c.name);
        selection_run run;
        if (c.pid >= 0x1000) // a PMT PID is listened to once the PAT has named it
            run.send_twice(ts_pat_pid, build_pat({}));
        run.stop = false;
        run.send_twice(c.pid, c.section);
        EXPECT_FALSE(run.stop);
        run.select({.streams = {{0x1B, 0x101}, {0x0F, 0x102}}});
        EXPECT_EQ(run.printed, "PAT: Locking onto Program 0001h PMT 1000h\n");
        EXPECT_EQ(run.followed(), "video 101/1 audio 102/2 sap 0/0");
    }
}

// The packet that a rendition's fragments begin with: the PMT with one stream, which has the PCR.
byte_string own_pmt(const pmt_fields& pmt, size_t stream)
{
    pmt_fields own = pmt;
    own.streams = {pmt.streams.at(stream)};
    own.pcr_pid = own.streams.front().pid;
    return packetiser{}.section(pmt_pid, section_unit(build_pmt(own)));
}

TEST(ProgrammeSelection, BuildsEachStreamsOwnPmtForSeparateStreams)
{
    for (const size_t info_bytes : {0U, 79U, 80U}) {
        SCOPED_TRACE(info_bytes);
        const pmt_fields pmt = {
            .section = {.table_id = 2, .table_id_extension = 1, .version_number = 6},
            .program_info = counting_bytes(info_bytes),
            .streams = {{0x1B, 0x101}, {0x0F, 0x102, {0x0A, 1, 9}}, {0x03, 0x103}, {0x03, 0x104}}};
        selection_run run;
        run.opts.separate_streams = true;
        run.select(pmt);
        const kept_packet* kept[] = {&run.pm.pmt_packet, &run.pm.audio_pmt_packet,
                                     &run.pm.sap_pmt_packet};
        for (size_t i = 0; i < 3; i++)
            EXPECT_EQ(byte_string(kept[i]->begin(), kept[i]->end()),
                      info_bytes < 80 ? own_pmt(pmt, i) : byte_string(packet_bytes));

        selection_run together;
        together.select(pmt);
        EXPECT_EQ(together.pm.pmt_packet, kept_packet{});
    }
}

} // namespace
