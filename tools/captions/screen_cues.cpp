#include "tools/captions/screen_cues.hpp"

#include <algorithm>

#include "tools/captions/screen_text.hpp"

namespace
{

// Begins the next cue at `time`.
void end_cue(screen_cues& track, int64_t time)
{
    if (!track.shown.lines.empty() && time > track.since) {
        if (track.cues.size() == most_kept_cues) {
            track.cues.pop_front();
            ++track.lost;
        }
        track.cues.push_back({.start = track.since,
                              .end = time,
                              .text = vtt_text(track.shown),
                              .settings = vtt_settings(track.shown)});
    }
    track.since = time;
}

} // namespace

void screen_cues::show(int64_t time, const caption_screen& screen, screen_change change)
{
    advance(time);
    if (screen == shown)
        return;
    const bool joins = change == screen_change::letters && !shown.lines.empty() &&
                       !screen.lines.empty() && latest - since < letters_ticks;
    if (!joins)
        end_cue(*this, latest);
    shown = screen;
}

void screen_cues::advance(int64_t time)
{
    latest = std::max(latest, time);
    while (!shown.lines.empty() && latest - since >= longest_cue_ticks)
        end_cue(*this, since + longest_cue_ticks);
}

void screen_cues::forget()
{
    end_cue(*this, latest);
    shown = {};
    since = 0;
    latest = 0;
}
