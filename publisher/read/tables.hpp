// The PAT and the PMT of a fragment: which streams the programme has, and the packets that carry
// both tables, kept to be put before segments that lack them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "toolkit/ts/table_assembly.hpp"
#include "toolkit/ts/ts_packet.hpp"

struct table_stream {
    uint8_t stream_type = 0;
    uint16_t pid = 0;
    std::string language; // ISO_639_language_descriptor; empty: none
    bool splices = false; // splice information: by its type, or registered as such
};

struct fragment_tables {
    uint16_t pmt_pid = 0; // 0: no PAT yet
    uint16_t program_number = 0;
    uint16_t pcr_pid = 0;
    std::vector<table_stream> streams;
    bool complete = false;            // a PMT has come
    std::vector<uint8_t> pat_packets; // the packets of the last whole PAT
    std::vector<uint8_t> pmt_packets;

    // What is gathered.
    mpeg_ts_table_assembly pat;
    mpeg_ts_table_assembly pmt;
    std::vector<uint8_t> pat_gathering;
    std::vector<uint8_t> pmt_gathering;
};

// Takes a packet of the PAT or of the PMT; true when the programme's streams are others now.
bool take_table_packet(fragment_tables& tables, const mpeg_ts_packet& pkt);
