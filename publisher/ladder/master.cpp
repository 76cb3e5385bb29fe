#include "publisher/ladder/master.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

#include "publisher/timeline/segmenting.hpp"

namespace
{

// A stream's measured picture rate is never quite what its encoder was told.
constexpr double usual_rates[] = {24000.0 / 1001, 24, 25, 30000.0 / 1001, 30, 50,
                                  60000.0 / 1001, 60};
constexpr double rate_tolerance = 0.005;

double snapped_rate(double rate)
{
    for (const double usual : usual_rates) {
        if (std::abs(rate - usual) <= usual * rate_tolerance)
            return usual;
    }
    return rate;
}

// How far the mean may stray before the master playlist is written again.
bool is_far_from(uint64_t value, uint64_t told)
{
    const uint64_t distance = value > told ? value - told : told - value;
    return distance * 20 > told;
}

// What the last GOP has, and what was known before of what is measured or comes and goes.
stream_facts updated(const stream_facts& before, const stream_facts& last)
{
    const bool same_picture = before.video.codec == last.video.codec &&
                              before.video.width == last.video.width &&
                              before.video.height == last.video.height;
    stream_facts now = last;
    now.video.frame_rate = same_picture && before.video.frame_rate > 0
                               ? before.video.frame_rate
                               : snapped_rate(last.video.frame_rate);
    now.captions.channels |= before.captions.channels;
    now.captions.services |= before.captions.services;
    return now;
}

} // namespace

master_facts updated_master(const presentation& p, const planned_segment& plan,
                            const std::vector<std::string>& rungs, const std::vector<track>& shared)
{
    master_facts master{.rungs = {}, .shared = shared};
    for (size_t i = 0; i < rungs.size(); i++) {
        const auto known =
            std::find_if(p.master.rungs.begin(), p.master.rungs.end(),
                         [&name = rungs[i]](const rung_facts& rung) { return rung.name == name; });
        rung_facts& rung = master.rungs.emplace_back();
        rung.name = rungs[i];
        if (known != p.master.rungs.end())
            rung = *known;
        if (plan.rungs[i].empty())
            continue;
        rung.streams = updated(rung.streams, plan.rungs[i].back().what.facts);
        const bandwidth measured = measured_bandwidth(p, rung.name);
        rung.peak_bandwidth = std::max(rung.peak_bandwidth, measured.peak);
        if (is_far_from(measured.average, rung.average_bandwidth))
            rung.average_bandwidth = measured.average;
        const bandwidth of_keyframes = keyframe_bandwidth(p, rung.name);
        rung.keyframe_peak_bandwidth =
            of_keyframes.peak == 0 ? 0 : std::max(rung.keyframe_peak_bandwidth, of_keyframes.peak);
        if (is_far_from(of_keyframes.average, rung.keyframe_average_bandwidth))
            rung.keyframe_average_bandwidth = of_keyframes.average;
    }
    master.independent = std::all_of(p.listed.begin(), p.listed.end(),
                                     [](const segment& s) { return s.independent; });
    return master;
}
