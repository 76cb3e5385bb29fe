// Packets for the control socket byte by byte, also such as no honest sender makes. All integers
// are big-endian.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bytes.hpp"

struct caption_pair {
    uint8_t type = 0;
    std::string name = {};
    byte_string value = {};
};

caption_pair text_pair(std::string name, std::string_view text); // type 0
caption_pair unsigned_pair(std::string name, uint64_t value);    // type 2
caption_pair signed_pair(std::string name, int64_t value);       // type 5
byte_string big_endian_bytes(uint64_t value);                    // 8 of them

struct caption_packet {
    std::string command = "vtt";
    uint8_t status = 3; // complete, and for use
    std::vector<caption_pair> pairs = {};
};

byte_string build_caption_packet(const caption_packet& packet);

// A cue as the parent sends it.
struct cue_event {
    std::string language = "eng"; // empty: none, the service names the rendition
    std::string text = "Hello";
    int64_t at_ms = 0; // on the transport clock
    int64_t length_ms = 1000;
    bool open = false; // its end is not known yet
    uint64_t service = 1;
    std::string settings = {};
};

byte_string build_cue_event(const cue_event& cue);
