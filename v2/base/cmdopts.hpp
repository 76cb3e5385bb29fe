// The parsed command line. `main` owns the one record; every stage receives it by reference.
#pragma once

#include <cstdint>
#include <string>

struct cmdopts {
    int32_t frag_duration = 4; // seconds, 1 to 20
    int32_t frag_backlog = 10; // fragments listed, 1 to 1000
    std::string m3u8_name = "ch1.m3u8";
    std::string frag_name = "ch1";
    std::string base_url; // empty, or ends in "/"
    bool clear_old = false;
    bool clear_old_only = false;
    bool no_padding = false;
    bool start_pat_pmt = false;
    bool pat_nit_not_first = false;
    bool no_multilevel = false;
    bool separate_streams = false;
    bool sap = false;
};
