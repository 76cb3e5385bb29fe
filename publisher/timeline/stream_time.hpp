// The time of the stream, by which segments are numbered where two publishers on two machines are
// to number them alike: the stream's clock of 33 bits, made whole by the time of day. A segment
// holds the GOPs that begin in one slot of the wanted length, and the slot tells its number.
#pragma once

#include <cstdint>

// Ticks since 1970: of the times at which the clock shows `clock`, the one nearest to `date`. The
// clock begins anew every 26.5 hours, so the machine's time of day only has to be right within
// hours.
int64_t stream_time(int64_t clock, int64_t date);

// Whether another machine, or a later start, may take another one: `date` is within an hour of
// where the nearest one changes.
bool is_ambiguous(int64_t clock, int64_t date);

// The time that the beginning of a segment has, of which the number and the clock are known. It is
// that of the stream moved by whole slots: after a jump of the clock numbers go on where they were.
// `date` is when it came.
int64_t time_of_segment(uint64_t number, int64_t clock, int64_t date, int64_t slot);
