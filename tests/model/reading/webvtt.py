"""Cues into WebVTT fragments, one per language and video fragment. Times of cues are milliseconds,
those of the stream ticks of the 90 kHz clock."""

import re

from .cut import LONGEST_STEP, SECOND
from .languages import is_service_tag

TICKS_PER_MS = SECOND // 1000
CLOCK_TICKS = 1 << 33
LOOK_AHEAD = 3 * SECOND
CLOSED_GAP_MS = 149
SHORTEST_CUE_MS = 33
LONGEST_SPAN_MS = 1 << 40


class WebvttWriter:
    def __init__(self, bundle, queues, say):
        self.bundle = bundle
        self.queues = queues
        self.say = say
        self.tracks = {}

    def emit(self, pts, cutter):
        """After each video PES with a PTS."""
        video = self.bundle.video
        if not self.bundle.master or not video.file:
            return
        window_end = cutter.window_end + LOOK_AHEAD
        for language, queue in sorted(self.queues.items()):
            if language not in self.tracks:
                self.bundle.add_subtitles(language)
                self.tracks[language] = Track(language, self.bundle.subtitles[language], self.say)
            track = self.tracks[language]
            if queue:
                track.begin_fragment_if_empty(cutter.fragment_begin)
            while queue and track.place(queue, pts, window_end, video.file_number):
                queue.popleft()


class Track:
    """One language."""

    def __init__(self, language, output, say):
        self.language = language
        self.output = output
        self.say = say
        self.origin = 0  # the stream's time at the beginning of the fragment
        self.last_end = -1

    def begin_fragment_if_empty(self, fragment_begin):
        if self.output.file and self.output.file_bytes:
            return
        if fragment_begin < self.origin:
            self.last_end = -1
        self.origin = fragment_begin
        text = b"WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:%d,LOCAL:%s\nKind: captions\n" % (
            fragment_begin, clock_time(fragment_begin // TICKS_PER_MS))
        if not is_service_tag(self.language):
            text += b"Language: %s\n" % self.language
        self.output.write(text + b"\n")

    def place(self, queue, pts, window_end, video_file_number):
        """Writes the queue's first cue. False while its end is not known yet."""
        cue = queue[0]
        shown_at = self._stream_time_of(cue)
        start = shown_at // TICKS_PER_MS
        overlap = 0
        if start <= self.last_end + CLOSED_GAP_MS:
            overlap = self.last_end - start
            start = self.last_end
        start = max(start, 0)

        span = _clamp(cue.end - cue.start)
        if cue.now >= 0 or shown_at >= window_end:
            end = start + span
        elif len(queue) == 1:
            return False
        else:
            until_next = _clamp(queue[1].start - cue.start)
            end = max(start, start + min(until_next, span))
        if overlap > 0:
            end -= overlap // 2
        end = max(end, start + SHORTEST_CUE_MS)
        self.last_end = max(self.last_end, end)

        if self.output.file_number != video_file_number:
            self.say(b"VTT lang '%s' fragment mismatch: ts=%d vtt=%d (BUG!)\n" % (
                self.language, video_file_number, self.output.file_number))
        self.output.write(cue_text(cue, start, end))
        return True

    def _stream_time_of(self, cue):
        """The cue's time on the stream's clock, which may have wrapped since the fragment began."""
        time = cue.mpeg_timestamp % CLOCK_TICKS
        if abs(time - self.origin) > LONGEST_STEP:
            time += CLOCK_TICKS
        if abs(time - self.origin) > LONGEST_STEP:
            self.say(b"Timestamp mismatch %d %d\n" % (time, self.origin))
            return self.origin
        return time


def cue_text(cue, start, end):
    text = clock_time(start) + b" --> " + clock_time(end)
    if cue.cue_settings:
        text += b" " + cue.cue_settings
    lines = re.split(rb"\r\n|\r|\n", cue.text)
    if not lines[-1]:
        lines.pop()  # a line break at the end adds no line
    # An empty line would end the cue.
    return b"\n".join([text, *(line or b" " for line in lines)]) + b"\n\n"


def clock_time(ms):
    return b"%d:%02d:%02d.%03d" % (ms // 3600000, ms // 60000 % 60, ms // 1000 % 60, ms % 1000)


def _clamp(ms):
    return max(-LONGEST_SPAN_MS, min(LONGEST_SPAN_MS, ms))
