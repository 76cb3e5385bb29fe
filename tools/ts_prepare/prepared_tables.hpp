// The PAT and the PMT of one programme: found in the stream, passed on or rewritten with continuity
// counters of their own, and repeated. ISO/IEC 13818-1, 2.4.4.
//
// vorn_mpegts_to_hls stays with the PID on which it finds its first PMT. So where the PMT moves to
// another, as it does when a second source follows a first, it still goes out on that PID.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "toolkit/ts/section_gatherer.hpp"
#include "toolkit/ts/ts_packet.hpp"

constexpr size_t pid_count = size_t{ts_pid_mask} + 1;
constexpr uint16_t no_pcr_pid = 0x1FFF; // of a programme without a PCR

struct programme_stream {
    uint8_t stream_type = 0;
    uint16_t pid = 0;
};

struct table_counter {
    uint8_t next = 0;       // continuity_counter of the PID's next packet
    uint8_t last_input = 0; // of its last packet that came in with payload
    bool begun = false;
};

struct prepared_tables {
    // Chosen by the caller. Without a number the programme is the first one in the PAT, and nothing
    // of the stream is left out; with one, the other programmes are.
    std::optional<uint16_t> wanted_programme;
    bool drop_service_information = false; // with wanted_programme only

    std::vector<uint8_t> pat; // the section that is repeated; empty: not known
    std::vector<uint8_t> pmt;
    uint16_t program_number = 0;
    uint16_t pmt_pid = 0;        // 0: no programme found
    uint16_t reader_pmt_pid = 0; // on which its PMT went out first; 0: none has
    uint16_t pcr_pid = no_pcr_pid;
    std::vector<programme_stream> streams;
    std::vector<uint16_t> listed_programmes; // in the PAT's section that came last
    std::array<bool, pid_count> belongs{};   // to the programme: PMT, streams, PCR, their ECMs
    std::array<bool, pid_count> has_splices{};

    ts_section_gatherer pat_sections;
    ts_section_gatherer pmt_sections;
    uint8_t pat_section_number = 0; // of the section that names the programme
    std::vector<uint8_t> pat_as_it_came;
    table_counter pat_counter;
    table_counter pmt_counter;
};

inline bool tables_are_known(const prepared_tables& tables)
{
    return !tables.pat.empty() && !tables.pmt.empty();
}

// Where the PMT goes out: on the PID that the reader knows, unless a stream of the programme has
// taken that over.
inline uint16_t sent_pmt_pid(const prepared_tables& tables)
{
    const uint16_t known = tables.reader_pmt_pid;
    const bool is_free = tables.pmt_pid != 0 && !tables.belongs[known];
    return known != 0 && is_free ? known : tables.pmt_pid;
}

// Whether the PAT and the PMT are written here, and do not pass as they come.
inline bool writes_tables(const prepared_tables& tables)
{
    return tables.wanted_programme || sent_pmt_pid(tables) != tables.pmt_pid;
}

enum class table_event {
    none,
    pat,         // a PAT with the programme has come in this packet
    pmt,         // its PMT has
    pat_changed, // a PAT has, and it is another than before
    pmt_changed, // likewise
    lost,        // the PAT names the programme no longer
};

// Takes what a packet says of the tables, without a thought of the output.
table_event read_tables(prepared_tables& tables, const mpeg_ts_packet& pkt);

// Whether a packet is to go out. The counters of the programme's PAT and PMT packets are renumbered
// in place; where the tables are written, those packets are left out.
[[nodiscard]] bool pass_packet(prepared_tables& tables, mpeg_ts_packet& pkt);

// Whether tables can be put in here without breaking a section that passes.
bool may_put_tables_in(const prepared_tables& tables);

// Packets of the PAT and the PMT, so many times, to be sent next.
std::vector<uint8_t> table_packets(prepared_tables& tables, unsigned times);
