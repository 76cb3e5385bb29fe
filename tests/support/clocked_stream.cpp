#include "tests/support/clocked_stream.hpp"

#include <algorithm>

#include "tests/support/pes_builder.hpp"

namespace
{

constexpr int64_t modulus = int64_t{1} << 33;
constexpr int64_t ticks_of_sound = 2160;

int64_t wrapped(int64_t time)
{
    return (time % modulus + modulus) % modulus;
}

uint16_t pid_of(const uint8_t* packet)
{
    return static_cast<uint16_t>((packet[1] & 0x1F) << 8 | packet[2]);
}

template <typename Wanted>
byte_string packets_that(const byte_string& packets, Wanted wanted)
{
    byte_string out;
    for (size_t at = 0; at + packet_bytes <= packets.size(); at += packet_bytes)
        if (wanted(pid_of(packets.data() + at)))
            append(out, std::span(packets).subspan(at, packet_bytes));
    return out;
}

// 33 bits in pieces of 3, 15 and 15, each with a marker bit behind it.
int64_t read_stamp(const uint8_t* p)
{
    return int64_t{(p[0] >> 1) & 7} << 30 | int64_t{p[1]} << 22 | int64_t{p[2] >> 1} << 15 |
           int64_t{p[3]} << 7 | p[4] >> 1;
}

packet_stamps read_stamps(const uint8_t* packet)
{
    packet_stamps stamps{.pid = pid_of(packet)};
    size_t payload = 4;
    if ((packet[3] & 0x20) != 0) {
        payload += 1u + packet[4];
        if (packet[4] >= 1)
            stamps.discontinuity = (packet[5] & 0x80) != 0;
        if (packet[4] >= 7 && (packet[5] & 0x10) != 0)
            stamps.pcr = int64_t{packet[6]} << 25 | packet[7] << 17 | packet[8] << 9 |
                         packet[9] << 1 | packet[10] >> 7;
    }
    const uint8_t* pes = packet + payload;
    const bool starts = (packet[1] & 0x40) != 0 && payload + 19 <= packet_bytes && pes[0] == 0 &&
                        pes[1] == 0 && pes[2] == 1;
    if (starts && (pes[7] & 0x80) != 0)
        stamps.pts = read_stamp(pes + 9);
    if (starts && (pes[7] & 0x40) != 0)
        stamps.dts = read_stamp(pes + 14);
    return stamps;
}

} // namespace

clocked_stream& clocked_stream::tables(size_t times)
{
    const byte_string pat =
        build_pat({.programmes = {{.number = programme_.number, .pid = programme_.pmt_pid}}});
    pmt_fields pmt{.pcr_pid = programme_.pcr_pid};
    pmt.section.table_id_extension = programme_.number;
    if (programme_.video_pid != 0)
        pmt.streams.push_back({.stream_type = 0x1B, .pid = programme_.video_pid});
    if (programme_.audio_pid != 0)
        pmt.streams.push_back({.stream_type = 0x0F, .pid = programme_.audio_pid});
    for (size_t i = 0; i < times; i++) {
        append(bytes, packets_.section(0, section_unit(pat)));
        append(bytes, packets_.section(programme_.pmt_pid, section_unit(build_pmt(pmt))));
    }
    return *this;
}

void clocked_stream::picture(int64_t time)
{
    const int64_t dts = wrapped(time + programme_.delay);
    const adaptation_fields pcr{
        .pcr = pcr_fields{.base = static_cast<uint64_t>(wrapped(time)), .extension = 7}};
    if (programme_.pcr_pid != 0x1FFF && programme_.pcr_pid != programme_.video_pid)
        append(bytes, build_ts_packet(
                          {.pid = programme_.pcr_pid, .adaptation = pcr, .has_payload = false}));
    if (programme_.video_pid == 0)
        return;
    const byte_string pes = build_pes(
        {.pts = wrapped(dts + ticks_per_frame), .dts = dts, .payload = counting_bytes(400)});
    append(bytes, packets_.pes(programme_.video_pid, pes,
                               programme_.pcr_pid == programme_.video_pid ? std::optional(pcr)
                                                                          : std::nullopt));
}

void clocked_stream::sound(int64_t time)
{
    append(bytes,
           packets_.pes(programme_.audio_pid, build_pes({.stream_id = 0xC0,
                                                         .length = pes_length::true_length,
                                                         .pts = wrapped(time + programme_.delay),
                                                         .payload = counting_bytes(100)})));
}

clocked_stream& clocked_stream::frames(int64_t time, size_t count)
{
    sound_due_ = time;
    for (size_t n = 0; n < count; n++) {
        const int64_t now = time + static_cast<int64_t>(n) * ticks_per_frame;
        picture(now);
        for (; programme_.audio_pid != 0 && sound_due_ < now + ticks_per_frame;
             sound_due_ += ticks_of_sound)
            sound(sound_due_);
    }
    return *this;
}

clocked_stream& clocked_stream::raw(std::span<const uint8_t> more)
{
    append(bytes, more);
    return *this;
}

std::vector<packet_stamps> stamps_of(const byte_string& packets)
{
    std::vector<packet_stamps> all;
    for (size_t at = 0; at + packet_bytes <= packets.size(); at += packet_bytes) {
        const packet_stamps stamps = read_stamps(packets.data() + at);
        if (stamps.pcr >= 0 || stamps.pts >= 0)
            all.push_back(stamps);
    }
    return all;
}

std::vector<int64_t> pcrs_of(const byte_string& packets)
{
    std::vector<int64_t> pcrs;
    for (const packet_stamps& stamps : stamps_of(packets))
        if (stamps.pcr >= 0)
            pcrs.push_back(stamps.pcr);
    return pcrs;
}

std::vector<int64_t> stamps_of_pid(const byte_string& packets, uint16_t pid)
{
    std::vector<int64_t> times;
    for (const packet_stamps& stamps : stamps_of(packets))
        if (stamps.pid == pid && stamps.pts >= 0)
            times.push_back(stamps.dts >= 0 ? stamps.dts : stamps.pts);
    return times;
}

byte_string packets_of_pid(const byte_string& packets, uint16_t pid)
{
    return packets_that(packets, [=](uint16_t p) { return p == pid; });
}

byte_string packets_without_pids(const byte_string& packets, const std::vector<uint16_t>& pids)
{
    return packets_that(packets,
                        [&](uint16_t p) { return std::ranges::find(pids, p) == pids.end(); });
}
