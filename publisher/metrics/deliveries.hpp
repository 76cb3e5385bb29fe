// Which source each group of pictures of the newest segments came from, for whoever watches twins
// stand in for each other.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct delivered_rung {
    std::string name;
    std::vector<std::string> sources; // of its GOPs, in their order
};

struct delivered_segment {
    uint64_t sequence = 0;
    int64_t date = 0;                  // of its first picture: ticks since 1970
    int64_t duration = 0;              // ticks
    std::vector<delivered_rung> rungs; // that have it
};

// JSON, oldest first.
std::string deliveries_text(const std::deque<delivered_segment>& newest);
