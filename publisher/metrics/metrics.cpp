#include "publisher/metrics/metrics.hpp"

#include <sstream>
#include <utility>

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

namespace
{

using prometheus::Counter;
using prometheus::Gauge;
using prometheus::Histogram;
using prometheus::Registry;

Histogram::BucketBoundaries gop_seconds()
{
    return {0.25, 0.5, 1, 1.5, 2, 3, 4, 6, 8, 10, 15, 20};
}

Histogram::BucketBoundaries delay_seconds()
{
    return {0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10};
}

Counter& add_counter(Registry& registry, const std::string& rendition, const char* name,
                     const char* help)
{
    return prometheus::BuildCounter().Name(name).Help(help).Register(registry).Add(
        {{"rendition", rendition}});
}

Gauge& add_gauge(Registry& registry, const std::string& rendition, const char* name,
                 const char* help)
{
    return prometheus::BuildGauge().Name(name).Help(help).Register(registry).Add(
        {{"rendition", rendition}});
}

// Of one source each.
template <typename Metric>
Metric& of_source(prometheus::Family<Metric>& family, const std::string& rendition,
                  const std::string& source)
{
    return family.Add({{"rendition", rendition}, {"source", source}}); // the same one each time
}

Histogram& add_histogram(Registry& registry, const std::string& rendition, const char* name,
                         const char* help, const Histogram::BucketBoundaries& boundaries)
{
    return prometheus::BuildHistogram().Name(name).Help(help).Register(registry).Add(
        {{"rendition", rendition}}, boundaries);
}

prometheus::Family<Counter>& source_family(Registry& registry, const char* name, const char* help)
{
    return prometheus::BuildCounter().Name(name).Help(help).Register(registry);
}

// Counters that are counted elsewhere only grow there too.
void raise_to(Counter& counter, double value)
{
    const double more = value - counter.Value();
    if (more > 0)
        counter.Increment(more);
}

} // namespace

struct metrics::families {
    families(std::shared_ptr<Registry> all, const std::string& rendition)
        : name(rendition), shared(std::move(all)), registry(*shared)
    {
    }

    std::string name;
    std::shared_ptr<Registry> shared;
    Registry& registry; // a family that another rendition has registered is the same
    Counter& linked = add_counter(registry, name, "vorn_hls_publish_linked_segments_total",
                                  "Segments that are a hard link to a fragment.");
    Counter& composed = add_counter(registry, name, "vorn_hls_publish_composed_segments_total",
                                    "Segments that were written.");
    Counter& segments =
        add_counter(registry, name, "vorn_hls_publish_segments_total", "Segments published.");
    Counter& bytes = add_counter(registry, name, "vorn_hls_publish_segment_bytes_total",
                                 "Bytes of the segments published, of all tracks.");
    Counter& seconds = add_counter(registry, name, "vorn_hls_publish_segment_seconds_total",
                                   "Time that the segments published last.");
    Histogram& gops = add_histogram(registry, name, "vorn_hls_publish_gop_seconds",
                                    "How long groups of pictures last.", gop_seconds());
    Counter& split = add_counter(registry, name, "vorn_hls_publish_split_gops_total",
                                 "Times that a group of pictures was split because no keyframe "
                                 "came within the target duration.");
    Counter& damaged = add_counter(registry, name, "vorn_hls_publish_damaged_gops_total",
                                   "Groups of pictures with lost or damaged packets.");
    Counter& continuity = add_counter(registry, name, "vorn_hls_publish_continuity_errors_total",
                                      "Places where packets are missing, by continuity counters.");
    Counter& transport = add_counter(registry, name, "vorn_hls_publish_transport_errors_total",
                                     "Packets that are marked as damaged, or that are none.");
    Counter& discontinuities = add_counter(registry, name, "vorn_hls_publish_discontinuities_total",
                                           "Discontinuities published.");
    Counter& failed = add_counter(registry, name, "vorn_hls_publish_failed_steps_total",
                                  "Times that something could not be written.");
    Counter& splices_left_out =
        add_counter(registry, name, "vorn_hls_publish_left_out_splices_total",
                    "Sections of splices that the playlists had no room for.");
    Histogram& delay = add_histogram(registry, name, "vorn_hls_publish_delay_seconds",
                                     "Time from a complete fragment to the playlist that lists it.",
                                     delay_seconds());
    Counter& runs = add_counter(registry, name, "vorn_hls_publish_source_runs_total",
                                "Runs of the source that were begun, its restarts.");
    Counter& lost = add_counter(registry, name, "vorn_hls_publish_lost_fragments_total",
                                "Fragments that the source deleted before they were read.");
    Counter& unusable = add_counter(registry, name, "vorn_hls_publish_unusable_fragments_total",
                                    "Fragments that hold nothing that can be published.");
    prometheus::Family<Counter>& source_gops =
        source_family(registry, "vorn_hls_publish_source_gops_total",
                      "Groups of pictures that were taken from the source.");
    prometheus::Family<Gauge>& source_refused =
        prometheus::BuildGauge()
            .Name("vorn_hls_publish_source_refused")
            .Help("1 while the source delivers another stream than what is published.")
            .Register(registry);
    prometheus::Family<Gauge>& peer_up =
        prometheus::BuildGauge()
            .Name("vorn_hls_publish_peer_up")
            .Help("1 while the list of the peer can be fetched and goes on.")
            .Register(registry);
    prometheus::Family<Gauge>& peer_differs =
        prometheus::BuildGauge()
            .Name("vorn_hls_publish_peer_differs")
            .Help("1 while the list of the peer says something else of the same segments.")
            .Register(registry);
    prometheus::Family<Counter>& requests = source_family(
        registry, "vorn_hls_publish_source_requests_total", "Requests to the server of a source.");
    prometheus::Family<Counter>& failed_requests =
        source_family(registry, "vorn_hls_publish_source_failed_requests_total",
                      "Requests that had no useful answer.");
    prometheus::Family<Counter>& fetched_bytes =
        source_family(registry, "vorn_hls_publish_source_fetched_bytes_total",
                      "Bytes of answers, without their headers.");
    prometheus::Family<Counter>& fetched_fragments =
        source_family(registry, "vorn_hls_publish_source_fetched_fragments_total",
                      "Fragments that were fetched.");
    prometheus::Family<Counter>& fetch_seconds =
        source_family(registry, "vorn_hls_publish_source_fetch_seconds_total",
                      "Time that the fetches of fragments took.");
    Gauge& source_up = add_gauge(registry, name, "vorn_hls_publish_source_up",
                                 "1 while the directories of all sources can be read and no run "
                                 "uses names of an earlier one.");
    Gauge& in_master = add_gauge(registry, name, "vorn_hls_publish_rendition_listed",
                                 "1 while the master playlist names the rendition.");
    Gauge& age =
        add_gauge(registry, name, "vorn_hls_publish_newest_segment_age_seconds",
                  "Time since a segment was published, or since the start before the first.");
    Gauge& free_space = add_gauge(registry, name, "vorn_hls_publish_free_bytes",
                                  "Room on the file system of the output directory.");
    Gauge& disk = add_gauge(registry, name, "vorn_hls_publish_disk_bytes",
                            "Size of the file system of the output directory.");
    Gauge& target = add_gauge(registry, name, "vorn_hls_publish_target_duration_seconds",
                              "The target duration of the playlists.");
    Gauge& listed = add_gauge(registry, name, "vorn_hls_publish_listed_segments",
                              "Segments in the media playlist.");
    Gauge& listed_time = add_gauge(registry, name, "vorn_hls_publish_listed_seconds",
                                   "How long the segments in the media playlist last.");
};

metrics::metrics(std::shared_ptr<Registry> registry, const std::string& rendition)
    : families_(std::make_unique<families>(std::move(registry), rendition))
{
}

metrics::metrics(metrics&& other) noexcept = default;

metrics::~metrics() = default;

void metrics::count_segment(bool linked, uint64_t bytes, double seconds)
{
    families_->segments.Increment();
    (linked ? families_->linked : families_->composed).Increment();
    families_->bytes.Increment(static_cast<double>(bytes));
    families_->seconds.Increment(seconds);
}

void metrics::count_gop(double seconds, uint64_t continuity_errors, uint64_t transport_errors)
{
    families_->gops.Observe(seconds);
    families_->continuity.Increment(static_cast<double>(continuity_errors));
    families_->transport.Increment(static_cast<double>(transport_errors));
    if (continuity_errors + transport_errors > 0)
        families_->damaged.Increment();
}

void metrics::count_source_gop(const std::string& source)
{
    of_source(families_->source_gops, families_->name, source).Increment();
}

void metrics::set_source_refused(const std::string& source, bool refused)
{
    of_source(families_->source_refused, families_->name, source).Set(refused ? 1 : 0);
}

void metrics::count_split_gop()
{
    families_->split.Increment();
}

void metrics::count_discontinuity()
{
    families_->discontinuities.Increment();
}

void metrics::count_failed_step()
{
    families_->failed.Increment();
}

void metrics::set_splices_left_out(uint64_t splices)
{
    raise_to(families_->splices_left_out, static_cast<double>(splices));
}

void metrics::observe_delay(double seconds)
{
    families_->delay.Observe(seconds);
}

void metrics::set_source(bool all_up, uint64_t runs, uint64_t lost_fragments,
                         uint64_t unusable_fragments)
{
    families_->source_up.Set(all_up ? 1 : 0);
    raise_to(families_->runs, static_cast<double>(runs));
    raise_to(families_->lost, static_cast<double>(lost_fragments));
    raise_to(families_->unusable, static_cast<double>(unusable_fragments));
}

void metrics::set_fetched(const std::string& source, const mirror_report& report)
{
    const auto raise = [&](prometheus::Family<Counter>& family, double value) {
        raise_to(of_source(family, families_->name, source), value);
    };
    raise(families_->requests, static_cast<double>(report.requests));
    raise(families_->failed_requests, static_cast<double>(report.failures));
    raise(families_->fetched_bytes, static_cast<double>(report.bytes));
    raise(families_->fetched_fragments, static_cast<double>(report.fragments));
    raise(families_->fetch_seconds, report.fragment_seconds);
}

void metrics::set_peer(const std::string& peer, bool up, bool differs)
{
    const prometheus::Labels labels = {{"rendition", families_->name}, {"peer", peer}};
    families_->peer_up.Add(labels).Set(up ? 1 : 0);
    families_->peer_differs.Add(labels).Set(differs ? 1 : 0);
}

void metrics::set_listed_in_master(bool listed)
{
    families_->in_master.Set(listed ? 1 : 0);
}

void metrics::set_newest_segment_age(double seconds)
{
    families_->age.Set(seconds);
}

void metrics::set_disk(uint64_t free_bytes, uint64_t bytes)
{
    families_->free_space.Set(static_cast<double>(free_bytes));
    families_->disk.Set(static_cast<double>(bytes));
}

void metrics::set_target_duration(int64_t seconds)
{
    families_->target.Set(static_cast<double>(seconds));
}

void metrics::set_listed(uint64_t segments, double seconds)
{
    families_->listed.Set(static_cast<double>(segments));
    families_->listed_time.Set(seconds);
}

std::shared_ptr<Registry> new_metrics_registry()
{
    return std::make_shared<Registry>();
}

std::string metrics_text(const Registry& registry)
{
    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, registry.Collect());
    return out.str();
}
