"""When all renditions are cut over to new fragments, and what is measured then. Times are ticks of
the 90 kHz clock."""

from dataclasses import dataclass

from .languages import is_service_tag
from .output import NOT_LISTED

SECOND = 90000
# A longer step is a discontinuity.
LONGEST_STEP = 600 * SECOND - 1
SHORTEST_MEASURED_S = 1.0
SMALLEST_MEASURED_BYTES = 1024


@dataclass
class Cut:
    pts: int
    duration: float


class Cutter:
    """Negative times stand for none."""

    def __init__(self, options, bundle, say):
        self.target = options.frag_duration * SECOND
        self.options = options
        self.bundle = bundle
        self.say = say
        self.window_begin = self.window_end = -1
        self.fragment_begin = -1
        self.last_video_pts = -1
        self.video_time = 0  # forward steps since the last cut
        self.has_started = False
        self.cuts = []

    def note_video(self, pts):
        """Every video PES with a PTS, keyframe or not."""
        if 0 <= self.last_video_pts < pts <= self.fragment_begin + LONGEST_STEP:
            self.video_time += pts - self.last_video_pts
        self.last_video_pts = pts

    def video_keyframe(self, pts, picture_size):
        is_continuous = (self.fragment_begin < 0
                         or abs(pts - self.fragment_begin) <= LONGEST_STEP)
        if is_continuous and self.window_end >= 0:
            if self.window_begin <= pts <= self.window_end:
                return
            duration = self._duration_until(pts)
            due = max(pts, self.window_end)
        else:
            is_measured = 1 <= self.video_time <= LONGEST_STEP
            duration = self.video_time / SECOND if is_measured else NOT_LISTED
            due = pts
        self._begin_fragment(pts, due)
        self.video_time = 0
        self.cuts.append(Cut(pts, duration))
        if self.bundle.master:
            self._measure(duration, picture_size)
        self._cut_all(duration)

    def audio_pes(self, pts):
        """Of a programme without video."""
        if self.window_end < 0:
            duration = NOT_LISTED
            due = pts
        elif self.window_begin <= pts <= self.window_end:
            return
        else:
            is_forward = pts > self.fragment_begin
            duration = (pts - self.fragment_begin if is_forward else self.target) / SECOND
            due = max(pts, self.window_end)
        self._begin_fragment(pts, due)
        self.cuts.append(Cut(pts, duration))
        # The next fragments are opened by the packets that are written to them.
        self._retire_media(duration)
        self.has_started = True

    def _duration_until(self, pts):
        if self.fragment_begin < pts <= self.fragment_begin + LONGEST_STEP:
            return (pts - self.fragment_begin) / SECOND
        return self.target / SECOND

    def _begin_fragment(self, pts, due):
        self.fragment_begin = pts
        self.window_begin = pts - SECOND
        self.window_end = max(due + self.target, pts + SECOND)

    def _measure(self, duration, picture_size):
        master, fragment_bytes = self.bundle.master, self.bundle.video.file_bytes
        master.width, master.height = picture_size
        master.must_be_written = True
        if duration > SHORTEST_MEASURED_S and fragment_bytes >= SMALLEST_MEASURED_BYTES:
            master.bandwidth = int(fragment_bytes * 8.0 / duration)
        if self.bundle.subtitles:
            master.has_subtitles_group = True

    def _retire_media(self, duration):
        for output in self.bundle.media_outputs:
            output.duration = duration
            output.retire()

    def _cut_all(self, duration):
        bundle = self.bundle
        self._retire_media(duration)
        bundle.audio.next_number = bundle.second_audio.next_number = bundle.video.next_number
        for language, output in bundle.subtitles_in_order():
            if output.file and output.file_bytes == 0:
                self._write_empty_subtitles(language, output)
            output.duration = duration
            output.retire()
            output.next_number = bundle.video.next_number
            output.open()
        bundle.video.open()
        if self.options.separate_streams:
            bundle.audio.open()
            if self.options.sap:
                bundle.second_audio.open()
        self.has_started = True

    def _write_empty_subtitles(self, language, output):
        self.say(b"WebVTT language fragment '%s' never got any events, "
                 b"writing empty file\n" % language)
        text = b"WEBVTT\nKind: captions\n"
        if not is_service_tag(language):
            text += b"Language: %s\n" % language
        output.write(text + b"\n")
