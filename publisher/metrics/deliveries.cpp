#include "publisher/metrics/deliveries.hpp"

#include <nlohmann/json.hpp>

#include "publisher/text/playlist_text.hpp"
#include "toolkit/pts_clock.hpp"

using nlohmann::json;

std::string deliveries_text(const std::deque<delivered_segment>& newest)
{
    json segments = json::array();
    for (const delivered_segment& s : newest) {
        json renditions = json::array();
        for (const delivered_rung& rung : s.rungs)
            renditions.push_back({{"name", rung.name}, {"sources", rung.sources}});
        segments.push_back({{"sequence", s.sequence},
                            {"date", date_text(s.date)},
                            {"duration", static_cast<double>(s.duration) / pts_ticks_per_second},
                            {"renditions", std::move(renditions)}});
    }
    const json all = {{"segments", std::move(segments)}};
    // The name of a directory need not be UTF-8; what is not is replaced.
    return all.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}
