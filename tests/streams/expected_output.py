"""What the program has to write and say for a whole stream: the model of tests/model says so, once
ffprobe has confirmed what the model saw in the stream."""

from dataclasses import dataclass

import model_path  # before what it makes known
from expect import expect, expect_equal
from reading.cut import Cutter
from reading.directory import Directory
from reading.run import Run


@dataclass
class Fragment:
    name: str
    begin: int  # the stretch of the stream that it covers
    end: int


@dataclass
class Rendition:
    playlist: str
    pid: int  # of its one stream, if it is a separate one
    listed_fragments: list  # those with more than tables in them; players stop where there are none


class _Watched(Cutter):
    """Notes what the model takes for pictures, or for audio where there is no video."""

    def __init__(self, run):
        super().__init__(run.options, run.bundle, run.say)
        self.run = run
        self.seen = []  # (position, PTS, may cut)

    def note_video(self, pts):
        self.seen.append((self.run.at, pts, False))
        super().note_video(pts)

    def video_keyframe(self, pts, picture_size):
        self.seen[-1] = (self.run.at, pts, True)
        super().video_keyframe(pts, picture_size)

    def audio_pes(self, pts):
        self.seen.append((self.run.at, pts, True))
        super().audio_pes(pts)


class ModelRun(Run):
    def __init__(self, arguments, stream):
        super().__init__([argument.encode() for argument in arguments], stream, Directory())
        self.at = 0  # position of the packet in hand
        self.cut_at = []
        self.run()
        self.messages = bytes(self.stderr).decode()
        self.files = {name.decode(): bytes(content)
                      for name, content in self.directory.files.items()}

    def _create_parts(self):
        super()._create_parts()
        self.cutter = _Watched(self)

    def _dispatch(self, at, pid, payload):
        self.at = at
        cuts = len(self.cutter.cuts)
        stop = super()._dispatch(at, pid, payload)
        self.cut_at += [at] * (len(self.cutter.cuts) - cuts)
        return stop

    def expect_confirmed(self, programme):
        """ffprobe knows the same streams, and the same pictures at the same times, but for those
        before the programme was known."""
        ours = self.programme
        expect_equal("programme", (ours.pmt_pid, ours.video_pid, ours.audio_pid,
                                   ours.second_audio_pid),
                     (programme.pmt_pid, programme.video_pid, programme.audio_pid,
                      programme.sap_pid))
        # The size is known of H.264 only.
        if programme.video and programme.video["codec_name"] == "h264":
            expect_equal("picture size", (self.h264.width, self.h264.height),
                         (programme.video["width"], programme.video["height"]))
        seen = self.cutter.seen
        units = [(unit.position, unit.pts, unit.may_cut) for unit in programme.units]
        expect(2 * len(seen) > len(units), f"the model saw {len(seen)} of {len(units)} pictures")
        expect_equal("pictures", seen, units[-len(seen):])

    def renditions(self):
        """Those that are meant to have packets, the main one first."""
        programme, options = self.programme, self.options
        pids = ([programme.video_pid, programme.audio_pid, programme.second_audio_pid]
                if options.separate_streams else [0])
        if not options.sap:
            pids = pids[:2]
        return [self._rendition(output, pid)
                for output, pid in zip(self.bundle.media_outputs, pids)]

    def _rendition(self, output, pid):
        ends = [*self.cut_at[1:], len(self.stream)]
        fragments = []
        for entry in list(output.playlist.entries)[-self.options.frag_backlog:]:
            # One without a name was never opened; in one of a stream that is not there are tables.
            if entry.name and (pid or not self.options.separate_streams):
                name = entry.name.decode()
                number = int(name.split(".")[-2])
                fragments.append(Fragment(name, self.cut_at[number], ends[number]))
        return Rendition(output.playlist.file_name.decode(), pid, fragments)
