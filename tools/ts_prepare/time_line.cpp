#include "tools/ts_prepare/time_line.hpp"

#include <algorithm>
#include <cstdlib>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t tick_microseconds(int64_t us)
{
    return us * 9 / 100;
}

// A clock that is sound steps by at most 0.1 s from one PCR to the next (2.7.2), and pictures
// follow each other within 0.7 s (2.7.4). It never steps back; but where a source leaves out the
// DTS of its pictures, their PTS do, by a few frames. Beyond these steps it has jumped.
constexpr int64_t longest_step_back = 3 * pts_ticks_per_second / 10;
constexpr int64_t longest_step_ahead = 2 * pts_ticks_per_second;

// PTS and PCR of one moment are not further apart than this.
constexpr int64_t same_moment = 10 * pts_ticks_per_second;

// A stretch of time is forgotten when none of its stamps has come for so long.
constexpr int64_t epoch_outlives = 5 * pts_ticks_per_second;

// Within this the PCR is said to go on: no receiver minds.
constexpr int64_t pcr_tolerance = pts_ticks_per_second / 10;

// After so many stamps without one, a programme has no PCR any longer.
constexpr unsigned stamps_that_end_pcr = 500;

constexpr unsigned stamps_that_prove = 3; // in a row, where there is no PCR

bool is_video(uint8_t stream_type)
{
    // MPEG-1 and 2, MPEG-4 part 2, H.264, H.265, H.266, AVS
    constexpr uint8_t types[] = {0x01, 0x02, 0x10, 0x1B, 0x24, 0x33, 0x42, 0xD2, 0xD4};
    return std::ranges::find(types, stream_type) != std::end(types);
}

bool is_audio(uint8_t stream_type)
{
    // MPEG-1 and 2, AAC as ADTS and LATM, AC-3 and E-AC-3 of ATSC
    constexpr uint8_t types[] = {0x03, 0x04, 0x0F, 0x11, 0x81, 0x87};
    return std::ranges::find(types, stream_type) != std::end(types);
}

struct packet_time {
    mpeg_ts_time_fields fields;
    int64_t pcr = -1;           // of the programme
    int64_t stamp = -1;         // DTS, or PTS
    stamp_line* line = nullptr; // of the packet's stream

    [[nodiscard]] bool empty() const { return fields.pcr == nullptr && fields.pts == nullptr; }
};

packet_time time_of(time_line& line, const mpeg_ts_packet& pkt)
{
    packet_time time;
    const uint8_t place = line.line_of[pkt.pid];
    const bool is_pcr_pid = pkt.pid == line.pcr_pid && pkt.pid != no_pcr_pid;
    if (place == 0 && !is_pcr_pid)
        return time;

    time.fields = mpeg_ts_find_time_fields(pkt);
    if (is_pcr_pid && time.fields.pcr != nullptr)
        time.pcr = load_pcr_base(time.fields.pcr);
    if (place == 0) {
        time.fields.pts = nullptr;
        time.fields.dts = nullptr;
        return time;
    }
    time.line = &line.lines[place - 1u];
    if (time.fields.pts != nullptr)
        time.stamp =
            load_time_stamp(time.fields.dts != nullptr ? time.fields.dts : time.fields.pts);
    return time;
}

int64_t programme_time(const time_line& line)
{
    return line.pcr_out >= 0 ? line.pcr_out : line.reference_out;
}

// The stretch of time that brings the stamp nearest to where it is expected.
clock_epoch& nearest_epoch(time_line& line, int64_t stamp, int64_t expected)
{
    clock_epoch* best = &line.epochs[line.current];
    if (expected < 0)
        return *best;
    const auto distance = [=](const clock_epoch& epoch) {
        return std::abs(stamp_distance(expected, stamp_sum(stamp, epoch.offset)));
    };
    for (clock_epoch& epoch : line.epochs)
        if (epoch.in_use && distance(epoch) < distance(*best))
            best = &epoch;
    return *best;
}

int64_t expected_stamp(const time_line& line, const stamp_line& stream)
{
    if (stream.is_paced && stream.last_out >= 0)
        return stamp_sum(stream.last_out, stream.step);
    return programme_time(line);
}

int64_t mapped(time_line& line, int64_t stamp, int64_t expected)
{
    return stamp_sum(stamp, nearest_epoch(line, stamp, expected).offset);
}

bool is_between(int64_t value, int64_t lowest, int64_t highest)
{
    return lowest <= value && value <= highest;
}

int64_t pause(const time_line& line, int64_t since_us, int64_t now_us)
{
    return line.live ? tick_microseconds(std::max(now_us - since_us, int64_t{0})) : 0;
}

bool pcr_is_in_line(time_line& line, int64_t pcr, int64_t now_us)
{
    if (line.pcr_out < 0)
        return true;
    const int64_t step = stamp_distance(line.pcr_out, mapped(line, pcr, line.pcr_out));
    return is_between(step, -longest_step_back,
                      longest_step_ahead + pause(line, line.pcr_us, now_us));
}

bool stamp_is_in_line(time_line& line, const stamp_line& stream, int64_t stamp, int64_t now_us)
{
    if (!stream.is_paced)
        return true;
    const int64_t programme_now = programme_time(line);
    const int64_t out = mapped(line, stamp, expected_stamp(line, stream));
    if (stream.last_out < 0)
        return programme_now < 0 || std::abs(stamp_distance(programme_now, out)) <= same_moment;

    int64_t explained = pause(line, stream.last_us, now_us);
    if (stream.programme_then >= 0 && programme_now >= 0)
        explained = std::max(explained, stamp_distance(stream.programme_then, programme_now));
    return is_between(stamp_distance(stream.last_out, out), -longest_step_back,
                      longest_step_ahead + explained);
}

void note_pcr(clock_suspicion& suspicion, int64_t pcr, bool in_line, bool announced)
{
    if (in_line) {
        suspicion.old_pcrs++;
        return;
    }
    if (suspicion.at < 0) {
        suspicion.at = pcr;
        suspicion.began_as_pcr = true;
    }
    if (std::abs(stamp_distance(suspicion.at, pcr)) > same_moment)
        return;
    suspicion.new_pcrs++;
    suspicion.announced = suspicion.announced || announced;
    if (suspicion.pcr < 0)
        suspicion.pcr = pcr;
}

void note_stamp(time_line& line, const stamp_line& stream, int64_t stamp, bool in_line)
{
    clock_suspicion& suspicion = line.suspicion;
    if (in_line) {
        if (stream.pid == line.reference_pid && suspicion.reference_stamp < 0)
            suspicion.reference_out = mapped(line, stamp, expected_stamp(line, stream));
        suspicion.old_stamps++;
        suspicion.new_stamps_in_a_row = 0;
        suspicion.pid_returned = suspicion.pid_returned || stream.pid == suspicion.pid;
        return;
    }
    if (suspicion.at < 0) {
        suspicion.at = stamp;
        suspicion.pid = stream.pid;
    }
    if (std::abs(stamp_distance(suspicion.at, stamp)) > same_moment)
        return;
    suspicion.new_stamps++;
    suspicion.new_stamps_in_a_row++;
    if (stream.pid == line.reference_pid && suspicion.reference_stamp < 0)
        suspicion.reference_stamp = stamp;
    if (suspicion.any_stamp < 0) {
        suspicion.any_stamp = stamp;
        suspicion.any_pid = stream.pid;
    }
}

bool is_confirmed(const time_line& line)
{
    const clock_suspicion& s = line.suspicion;
    if (line.pcr_out < 0)
        return s.new_stamps_in_a_row >= stamps_that_prove;
    return s.new_pcrs >= 1 && (s.new_pcrs + s.new_stamps >= 2 || s.announced);
}

bool is_refuted(const time_line& line)
{
    const clock_suspicion& s = line.suspicion;
    if (is_confirmed(line))
        return false;
    if (line.pcr_out < 0)
        return s.pid_returned || s.old_stamps > stamps_that_prove;
    if (s.began_as_pcr)
        return s.old_pcrs >= 1;
    return s.new_pcrs == 0 && (s.pid_returned || s.old_pcrs >= 2);
}

// The offset with which the first picture after the jump follows the last one before it, or what
// there is in its place.
int64_t offset_after_jump(const time_line& line)
{
    const clock_suspicion& s = line.suspicion;
    const int64_t reference_out = s.reference_out >= 0 ? s.reference_out : line.reference_out;
    if (s.reference_stamp >= 0 && reference_out >= 0)
        return stamp_sum(reference_out, line.reference_step - s.reference_stamp);
    const uint8_t place = s.any_stamp >= 0 ? line.line_of[s.any_pid] : 0;
    if (place != 0 && line.lines[place - 1u].last_out >= 0) {
        const stamp_line& stream = line.lines[place - 1u];
        return stamp_sum(stream.last_out, stream.step - s.any_stamp);
    }
    return stamp_sum(line.pcr_out, line.pcr_step - s.pcr);
}

void begin_epoch(time_line& line, int64_t offset)
{
    const int64_t now = std::max(programme_time(line), int64_t{0});
    size_t place = line.epochs.size();
    for (size_t i = 0; i < line.epochs.size(); i++) {
        if (i == line.current)
            continue;
        const auto age = [&](size_t n) {
            return stamp_distance(line.epochs[n].last_used_at, now);
        };
        if (!line.epochs[i].in_use) {
            place = i;
            break;
        }
        if (place == line.epochs.size() || age(i) > age(place))
            place = i;
    }
    line.epochs[line.current].last_used_at = now;
    line.epochs[place] = {.offset = offset, .last_used_at = now, .in_use = true};
    line.current = place;
    line.epoch_has_pcr = false;
}

time_verdict judge(time_line& line, const packet_time& time, int64_t now_us)
{
    clock_suspicion& suspicion = line.suspicion;
    if (time.pcr >= 0) {
        const bool announced = (time.fields.pcr[-1] & discontinuity_indicator_bit) != 0;
        note_pcr(suspicion, time.pcr, pcr_is_in_line(line, time.pcr, now_us), announced);
    }
    if (time.stamp >= 0 && time.line->is_paced)
        note_stamp(line, *time.line, time.stamp,
                   stamp_is_in_line(line, *time.line, time.stamp, now_us));

    // Where the first picture is still to come, it decides where time goes on.
    const bool picture_to_come = line.reference_out >= 0 && suspicion.reference_stamp < 0;
    if (is_refuted(line) || (is_confirmed(line) && !picture_to_come))
        return end_wait(line);
    return time_verdict::hold;
}

bool is_suspicious(time_line& line, const packet_time& time, int64_t now_us)
{
    if (time.pcr >= 0 && !pcr_is_in_line(line, time.pcr, now_us))
        return true;
    return time.stamp >= 0 && time.line->strays == 0 &&
           !stamp_is_in_line(line, *time.line, time.stamp, now_us);
}

void use(time_line& line, clock_epoch& epoch)
{
    const int64_t now = programme_time(line);
    if (now < 0)
        return;
    epoch.last_used_at = now;
    for (clock_epoch& other : line.epochs)
        if (&other != &line.epochs[line.current] &&
            stamp_distance(other.last_used_at, now) > epoch_outlives)
            other.in_use = false;
}

// Says with the first PCR after a jump whether the clock goes on. The indicator of the source says
// that it does not.
void mark_first_pcr(time_line& line, uint8_t* pcr_field, int64_t out)
{
    if (line.epoch_has_pcr)
        return;
    line.epoch_has_pcr = true;
    uint8_t& flags = pcr_field[-1];
    const int64_t expected = stamp_sum(line.pcr_out, line.pcr_step);
    if (std::abs(stamp_distance(expected, out)) <= pcr_tolerance)
        flags = static_cast<uint8_t>(flags & ~discontinuity_indicator_bit);
    else
        flags |= discontinuity_indicator_bit;
}

void rewrite_pcr(time_line& line, const packet_time& time, int64_t now_us)
{
    if (time.fields.pcr == nullptr)
        return;
    const int64_t pcr = load_pcr_base(time.fields.pcr);
    const bool in_line = pcr_is_in_line(line, pcr, now_us);
    clock_epoch& epoch = nearest_epoch(line, pcr, line.pcr_out);
    const int64_t out = stamp_sum(pcr, epoch.offset);
    if (epoch.offset != 0)
        store_pcr_base(time.fields.pcr, out);
    if (time.pcr < 0)
        return; // of another stream than the one whose PCR counts

    const bool first_of_epoch = &epoch == &line.epochs[line.current] && !line.epoch_has_pcr;
    if (first_of_epoch)
        mark_first_pcr(line, time.fields.pcr, out);
    if (in_line || first_of_epoch) {
        const int64_t step = line.pcr_out < 0 ? 0 : stamp_distance(line.pcr_out, out);
        if (step > 0 && step < pts_ticks_per_second)
            line.pcr_step = step;
        line.pcr_out = out;
        line.pcr_us = now_us;
        line.stamps_without_pcr = 0;
        use(line, epoch);
    }
}

// A stream may change its time alone, and then it has a line of its own: that is passed on as it
// is.
bool has_gone_its_own_way(stamp_line& stream, int64_t out)
{
    const bool follows = stream.strays != 0 && is_between(stamp_distance(stream.stray_out, out),
                                                          -longest_step_back, longest_step_ahead);
    stream.strays = follows ? stream.strays + 1 : 1;
    stream.stray_out = out;
    return stream.strays >= stamps_that_prove;
}

void rewrite_stamps(time_line& line, const packet_time& time, int64_t now_us)
{
    if (time.stamp < 0)
        return;
    if (++line.stamps_without_pcr > stamps_that_end_pcr)
        line.pcr_out = -1;
    stamp_line& stream = *time.line;
    const bool in_line = stamp_is_in_line(line, stream, time.stamp, now_us);
    clock_epoch& epoch = in_line ? nearest_epoch(line, time.stamp, expected_stamp(line, stream))
                                 : line.epochs[line.current];
    if (epoch.offset != 0)
        for (uint8_t* field : {time.fields.pts, time.fields.dts})
            if (field != nullptr)
                store_time_stamp(field, stamp_sum(load_time_stamp(field), epoch.offset));

    const int64_t out = stamp_sum(time.stamp, epoch.offset);
    if (!in_line && !has_gone_its_own_way(stream, out))
        return;
    stream.strays = 0;
    const int64_t step = stream.last_out < 0 ? 0 : stamp_distance(stream.last_out, out);
    if (step > 0 && step < pts_ticks_per_second)
        stream.step = step;
    stream.last_out = out;
    stream.programme_then = programme_time(line);
    stream.last_us = now_us;
    if (stream.pid == line.reference_pid) {
        line.reference_out = out;
        line.reference_step = stream.step;
    }
    use(line, epoch);
}

} // namespace

void follow_streams(time_line& line, const prepared_tables& tables)
{
    std::vector<stamp_line> lines;
    const programme_stream* reference = nullptr;
    const auto prefer = [&](const programme_stream& stream, bool (*is_kind)(uint8_t)) {
        if (reference == nullptr && is_kind(stream.stream_type))
            reference = &stream;
    };
    for (const programme_stream& stream : tables.streams)
        prefer(stream, is_video);
    for (const programme_stream& stream : tables.streams)
        prefer(stream, is_audio);

    std::array<uint8_t, pid_count> line_of{};
    for (const programme_stream& stream : tables.streams) {
        if (line_of[stream.pid] != 0 || lines.size() == 255)
            continue;
        const uint8_t place = line.line_of[stream.pid];
        stamp_line next = place != 0 ? line.lines[place - 1u] : stamp_line{.pid = stream.pid};
        next.is_paced = is_video(stream.stream_type) || is_audio(stream.stream_type);
        lines.push_back(next);
        line_of[stream.pid] = static_cast<uint8_t>(lines.size());
    }
    line.lines = std::move(lines);
    line.line_of = line_of;
    line.pcr_pid = tables.pcr_pid;
    line.reference_pid = reference != nullptr ? reference->pid : 0;
}

time_verdict take_time(time_line& line, mpeg_ts_packet& pkt, int64_t now_us)
{
    const packet_time time = time_of(line, pkt);
    if (time.empty())
        return line.holding ? time_verdict::hold : time_verdict::pass;
    if (!line.holding && !is_suspicious(line, time, now_us)) {
        rewrite_pcr(line, time, now_us);
        rewrite_stamps(line, time, now_us);
        return time_verdict::pass;
    }
    if (!line.holding) {
        line.suspicion = {};
        line.holding = true;
    }
    return judge(line, time, now_us);
}

time_verdict end_wait(time_line& line)
{
    line.holding = false;
    if (!is_confirmed(line))
        return time_verdict::settled;
    begin_epoch(line, offset_after_jump(line));
    return time_verdict::jumped;
}

void release_packet(time_line& line, mpeg_ts_packet& pkt, int64_t now_us)
{
    const packet_time time = time_of(line, pkt);
    rewrite_pcr(line, time, now_us);
    rewrite_stamps(line, time, now_us);
}

int64_t clock_offset(const time_line& line)
{
    return stamp_distance(0, line.epochs[line.current].offset);
}
