#include "tools/ts_prepare/padding_need.hpp"

namespace
{

// What the program keeps unread behind the packet in hand, and what it reads before it begins.
constexpr uint64_t reader_look_ahead_bytes = 1540096 + 3008;
constexpr uint64_t reader_start_bytes = 2 << 20;

// Where no packet has been seen for so long at which a fragment may end, there may be some that go
// unseen.
constexpr int64_t cuts_are_unseen_after_us = 12'000'000;

} // namespace

void note_output(padding_need& need, size_t bytes, bool fragment_may_end, int64_t now_us)
{
    if (bytes == 0)
        return;
    need.sent += bytes;
    need.since_input = 0;
    need.since_cut += bytes;
    if (!fragment_may_end)
        return;
    need.since_cut = 0;
    need.cut_us = now_us;
}

void note_padding(padding_need& need, size_t bytes)
{
    need.sent += bytes;
    need.since_input += bytes;
    need.since_cut += bytes;
}

bool padding_helps(const padding_need& need, input_flow flow, int64_t now_us)
{
    if (need.sent < reader_start_bytes || need.since_cut < reader_look_ahead_bytes)
        return true;
    if (flow == input_flow::pauses)
        return need.since_input < reader_look_ahead_bytes;
    return need.cut_us < 0 || now_us - need.cut_us > cuts_are_unseen_after_us;
}

bool is_flushed(const padding_need& need)
{
    const bool nothing_came = need.sent == need.since_input;
    return nothing_came ||
           (need.sent >= reader_start_bytes && need.since_input >= reader_look_ahead_bytes);
}
