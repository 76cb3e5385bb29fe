#include "tools/ts_prepare/continuity.hpp"

#include <gtest/gtest.h>

#include "tests/support/ts_builder.hpp"

namespace
{

bool take(continuity_check& check, const ts_fields& fields)
{
    byte_string bytes = build_ts_packet(fields);
    mpeg_ts_packet pkt;
    EXPECT_NE(mpeg_ts_decode(pkt, bytes.data(), bytes.size()), 0);
    return continues(check, pkt);
}

TEST(Continuity, HoldsAsTheStandardHasIt)
{
    const adaptation_fields announced{.discontinuity_indicator = true};
    const adaptation_fields plain{};
    const struct {
        const char* name;
        ts_fields fields;
        bool want;
    } steps[] = {
        {"the first packet", {.pid = 1, .continuity_counter = 14}, true},
        {"the next", {.pid = 1, .continuity_counter = 15}, true},
        {"the next, past the wrap", {.pid = 1, .continuity_counter = 0}, true},
        {"another PID", {.pid = 2, .continuity_counter = 9}, true},
        {"twice", {.pid = 1, .continuity_counter = 0}, true},
        {"a third time", {.pid = 1, .continuity_counter = 0}, false},
        {"without payload",
         {.pid = 1, .continuity_counter = 0, .adaptation = plain, .has_payload = false},
         true},
        {"without payload, counted on",
         {.pid = 1, .continuity_counter = 1, .adaptation = plain, .has_payload = false},
         false},
        {"one missing", {.pid = 1, .continuity_counter = 3}, false},
        {"one missing, announced",
         {.pid = 1, .continuity_counter = 5, .adaptation = announced},
         true},
        {"null packets", {.pid = null_pid, .continuity_counter = 5}, true},
        {"null packets", {.pid = null_pid, .continuity_counter = 9}, true},
    };
    continuity_check check;
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        EXPECT_EQ(take(check, step.fields), step.want);
    }
}

} // namespace
