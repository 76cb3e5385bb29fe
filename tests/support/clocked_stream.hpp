// A programme with a PCR, pictures and sound in step, for tests of what goes by the clock: 25
// pictures a second with DTS one frame before the PTS, sound of 24 ms a packet. And the reading of
// its stamps.
#pragma once

#include "tests/support/packetiser.hpp"
#include "tests/support/psi_builder.hpp"

constexpr int64_t ticks_per_frame = 3600;

struct clocked_programme {
    uint16_t number = 1;
    uint16_t pmt_pid = 0x1000;
    uint16_t video_pid = 0x100; // 0: no video
    uint16_t audio_pid = 0x101; // 0: no audio
    uint16_t pcr_pid = 0x100;   // 0x1FFF: none
    int64_t delay = 63000;      // from a PCR to the DTS beside it
};

class clocked_stream
{
public:
    explicit clocked_stream(const clocked_programme& programme = {}) : programme_(programme) {}

    clocked_stream& tables(size_t times = 1);

    // So many frames with the first PCR at `time`, on the clock of 33 bits.
    clocked_stream& frames(int64_t time, size_t count);

    // Puts bytes in as they are.
    clocked_stream& raw(std::span<const uint8_t> more);

    byte_string bytes;

private:
    void picture(int64_t time);
    void sound(int64_t time);

    clocked_programme programme_;
    packetiser packets_;
    int64_t sound_due_ = -1;
};

// What a packet says of the time; -1: nothing.
struct packet_stamps {
    uint16_t pid = 0;
    int64_t pcr = -1;
    int64_t pts = -1;
    int64_t dts = -1;
    bool discontinuity = false;

    bool operator==(const packet_stamps&) const = default;
};

// Of all packets that say something.
std::vector<packet_stamps> stamps_of(const byte_string& packets);

// The PCR, or the DTS (PTS where there is none) of one PID, in order.
std::vector<int64_t> pcrs_of(const byte_string& packets);
std::vector<int64_t> stamps_of_pid(const byte_string& packets, uint16_t pid);

// The packets of one PID, or all others.
byte_string packets_of_pid(const byte_string& packets, uint16_t pid);
byte_string packets_without_pids(const byte_string& packets, const std::vector<uint16_t>& pids);
