#include "tools/ts_prepare/counters.hpp"

#include <cinttypes>
#include <cstdio>

std::string counters_as_json(const prepare_counters& counters, double seconds)
{
    std::string json = "{\"seconds\":";
    char number[32];
    std::snprintf(number, sizeof number, "%.1f", seconds);
    json += number;

    const struct {
        const char* name;
        uint64_t value;
    } members[] = {
        {"input_bytes", counters.input_bytes},
        {"input_packets", counters.input_packets},
        {"output_packets", counters.output_packets},
        {"padding_packets", counters.padding_packets},
        {"table_packets", counters.table_packets},
        {"dropped_packets", counters.dropped_packets},
        {"continuity_errors", counters.continuity_errors},
        {"transport_errors", counters.transport_errors},
        {"sync_losses", counters.sync_losses},
        {"skipped_bytes", counters.skipped_bytes},
        {"rtp_lost", counters.rtp_lost},
        {"rtp_duplicates", counters.rtp_duplicates},
        {"rtp_reordered", counters.rtp_reordered},
        {"clock_jumps", counters.clock_jumps},
        {"unmoved_splices", counters.unmoved_splices},
        {"reader_behind", counters.reader_behind},
    };
    for (const auto& member : members)
        json += ",\"" + std::string(member.name) + "\":" + std::to_string(member.value);
    return json + ",\"clock_offset\":" + std::to_string(counters.clock_offset) + "}";
}
