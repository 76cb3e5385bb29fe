// The texts that runs are expected to leave, from the few values that vary.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/bytes.hpp"

struct listed_fragment {
    std::string duration = {}; // as printed: "6.000"
    std::string uri = {};      // empty: a fragment without a name leaves only its empty line
};

struct expected_media_playlist {
    unsigned target_duration = 4;
    std::optional<uint64_t> first_sequence = {}; // none: nothing is listed
    std::vector<listed_fragment> fragments = {};
};

byte_string media_playlist(const expected_media_playlist& playlist);

// The master playlist of a run without separate streams or captions.
struct expected_master_playlist {
    uint64_t bandwidth = 0;
    std::string resolution = {}; // "320x240"; empty: not known
    std::string variant = "ch1.m3u8.av.m3u8";
};

byte_string master_playlist(const expected_master_playlist& playlist);

// "<base>.<number, eight digits>.ts"
std::string fragment_name(uint64_t number, const std::string& base = "ch1");

// `times` empty lines: what entries without a name leave in a playlist.
std::vector<listed_fragment> nameless(size_t count);

// The lines on standard error when the programme is found.
struct expected_programme {
    unsigned number = 1;
    unsigned pmt_pid = 0x1000;
    unsigned audio_pid = 0x102;
    unsigned video_pid = 0x101;
};

std::string programme_lines(const expected_programme& programme = {});

// One warning per listed fragment without a name, in a playlist of the name `file`.
std::string nameless_warnings(uint64_t first, uint64_t last, const std::string& file = "");

std::string deletion_line(const std::string& file);

std::string hex4(unsigned value);
