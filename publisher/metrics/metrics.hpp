// What is counted, in the form that Prometheus reads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "publisher/follow/source_mirror.hpp"

namespace prometheus
{
class Registry;
}

// Of one rendition. All renditions of a presentation have one registry.
class metrics
{
public:
    metrics(std::shared_ptr<prometheus::Registry> registry, const std::string& rendition);
    metrics(metrics&& other) noexcept;
    ~metrics();
    metrics(const metrics&) = delete;
    metrics& operator=(const metrics&) = delete;

    void count_segment(bool linked, uint64_t bytes, double seconds);
    void count_gop(double seconds, uint64_t continuity_errors, uint64_t transport_errors);
    void count_source_gop(const std::string& source); // that it was taken from
    void count_split_gop();
    void count_discontinuity();
    void count_failed_step();
    void set_splices_left_out(uint64_t splices);
    void observe_delay(double seconds); // from a complete fragment to the playlist that lists it
    // Of all sources together.
    void set_source(bool all_up, uint64_t runs, uint64_t lost_fragments,
                    uint64_t unusable_fragments);
    void set_source_refused(const std::string& source, bool refused);
    void set_fetched(const std::string& source, const mirror_report& report);
    void set_peer(const std::string& peer, bool up, bool differs);
    void set_listed_in_master(bool listed);
    void set_newest_segment_age(double seconds);
    void set_disk(uint64_t free_bytes, uint64_t bytes);
    void set_target_duration(int64_t seconds);
    void set_listed(uint64_t segments, double seconds);

private:
    struct families;
    std::unique_ptr<families> families_;
};

std::shared_ptr<prometheus::Registry> new_metrics_registry();

// The text format, version 0.0.4.
std::string metrics_text(const prometheus::Registry& registry);
