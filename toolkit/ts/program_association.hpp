// The body of a program association section, ISO/IEC 13818-1, 2.4.4.3 (table 2-30), a whole
// section of one programme, and one that names another PID.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

struct program_association_entry {
    uint16_t program_number = 0; // 0: the network entry
    uint16_t pid = 0;            // of the programme's PMT, or network_PID
};

// The entries of a sound section; bytes at its end that are no whole entry are left out.
std::vector<program_association_entry> read_program_association(std::span<const uint8_t> section);

// A section with this one entry, and all else as in `like`, a sound section: transport_stream_id
// and version_number. It is the only one of its table.
std::vector<uint8_t> write_program_association(std::span<const uint8_t> like,
                                               const program_association_entry& entry);

// Names this PID for the programme, in a sound section that is changed in place.
void move_programme(std::span<uint8_t> section, const program_association_entry& entry);
