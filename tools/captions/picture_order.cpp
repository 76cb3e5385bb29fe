#include "tools/captions/picture_order.hpp"

#include <algorithm>
#include <utility>

void picture_order::add(captioned_picture picture)
{
    const int64_t now = picture.decoding;
    // Behind those of the same time: both fields of a frame may share one.
    const auto place = std::ranges::upper_bound(waiting, picture.presentation, {},
                                                &captioned_picture::presentation);
    waiting.insert(place, std::move(picture));
    while (!waiting.empty() &&
           (waiting.front().presentation <= now || waiting.size() > most_waiting_pictures)) {
        ready.push_back(std::move(waiting.front()));
        waiting.pop_front();
    }
}

void picture_order::finish()
{
    std::ranges::move(waiting, std::back_inserter(ready));
    waiting.clear();
}
