"""A run from its command line to its exit status: start-up, passes over the buffered packets, and
the road of each packet."""

from .bundle import Bundle
from .captions import CaptionIntake
from .clear_old import clear_old
from .cut import Cutter
from .h264 import H264Stream
from .mpeg_video import is_keyframe
from .options import parse_options
from .packet import (PACKET_BYTES, PADDING_PID, PAT_PID, SYNC_BYTE, payload_begin, pid_of,
                     starts_unit)
from .pes import find_pes, gather, is_audio, is_video
from .programme import H264, Programme
from .tables import ProgramAborts
from .webvtt import WebvttWriter
from .window import FIRST_FILL, Window

LOOK_AHEAD = 1540096
WORTH_A_PASS = 16 * PACKET_BYTES
LARGEST_FRAGMENT = 64 << 20

ENDED, REFUSED, FAILED = 0, 1, 2
ABORTED = "abort"


class Run:
    """Arguments are bytes. `piece`: what a read brings where the input is a pipe; None: it is a file.
    What is left behind: `status`, `stderr` and the directory."""

    def __init__(self, arguments, stream, directory, socket=None, piece=None):
        self.arguments = arguments
        self.stream = bytearray(stream)  # the program rewrites some packets where they are
        self.directory = directory
        self.socket = socket
        self.piece = piece
        self.stderr = bytearray()
        self.say = self.stderr.extend
        self.status = None
        self.options = None
        self.bundle = None

    def run(self):
        try:
            self.status = self._main()
            if self.bundle:
                self.bundle.end()
        except ProgramAborts as assertion:
            self.say(assertion.args[0] + b"\n")
            self.status = ABORTED
        return self

    def _main(self):
        self.options = parse_options(self.arguments, self.say)
        if not self.options:
            return REFUSED
        if self.options.clear_old:
            clear_old(self.options, self.directory, self.say)
            if self.options.clear_old_only:
                return ENDED
        if self.options.anon_sock >= 0 and not self.socket:
            return ENDED  # the descriptor is no socket
        self._create_parts()
        if not self.window.refill(FIRST_FILL):
            self.say(b"Failed to refill until\n")
            return REFUSED
        if not self.window.synchronise():
            return self._no_sync()
        return self._find_programme() or self._main_loop()

    def _create_parts(self):
        self.window = Window(self.stream, self.piece)
        self.programme = Programme(self.options, self.say)
        self.bundle = Bundle(self.options, self.directory, self.say, self.programme.tables)
        self.cutter = Cutter(self.options, self.bundle, self.say)
        self.h264 = H264Stream()
        self.intake = CaptionIntake(self.socket, self.options, self.say)
        self.webvtt = WebvttWriter(self.bundle, self.intake.queues, self.say)

    def _no_sync(self):
        self.say(b"Failed to sync to MPEG TS\n")
        return REFUSED

    def _find_programme(self):
        """An exit status, or None when there is something to go on with."""
        programme = self.programme
        while not programme.is_locked:
            if status := self._start_up_pass():
                return status
        self.say(b"Got PAT. Chose PMT=%04xh\n" % programme.pmt_pid)
        while not programme.has_pmt:
            if status := self._start_up_pass():
                return status
        self.say(b"Got PMT. Chose audio=%04xh video=%04xh.\n" % (
            programme.audio_pid, programme.video_pid))
        if not programme.audio_pid and not programme.video_pid:
            self.say(b"Not enough to HLS chop by\n")
            return REFUSED
        return None

    def _start_up_pass(self):
        if not self.window.refill(WORTH_A_PASS) or not self.window.synchronise():
            return self._no_sync()
        if not self.intake.take_one():
            return REFUSED
        return None if self._process_packets() else FAILED

    def _main_loop(self):
        window = self.window
        while not window.at_end_of_input or window.available >= PACKET_BYTES:
            window.refill(LOOK_AHEAD + WORTH_A_PASS)
            if not self.intake.take_one():
                return REFUSED
            if not window.synchronise():
                self.say(b"MTS sync fail\n")
            elif not self._process_packets():
                self.say(b"I/O proc fail\n")
                return FAILED
        self.say(b"Stream EOF\n")
        return ENDED

    def _process_packets(self):
        window = self.window
        needed = PACKET_BYTES + (0 if window.at_end_of_input else LOOK_AHEAD)
        self.bundle.write_master_if_due()
        if window.available < needed:
            return False
        # A packet that cannot be decoded goes where the one before it went.
        pid = 0
        stop = False
        while not stop and window.available >= needed:
            at = window.begin
            window.begin += PACKET_BYTES
            if self.stream[at] != SYNC_BYTE:
                break
            payload = payload_begin(self.stream, at)
            if payload is not None:
                pid = pid_of(self.stream, at)
                stop = self._dispatch(at, pid, payload)
                if self._is_filtered(pid):
                    continue
            if not self._write(at, pid):
                self.say(b"HLS out write error\n")
                return False
        if self.bundle.video.file_bytes >= LARGEST_FRAGMENT:
            self.say(b"HLS cutting is not happening\n")
            return False
        return True

    def _dispatch(self, at, pid, payload):
        """True if the pass must end with this packet."""
        programme = self.programme
        if pid in programme.assemblies:
            return programme.take_packet(self.stream, at, pid)
        if pid and starts_unit(self.stream, at):
            if pid == programme.video_pid:
                self._take_video_pes(at)
            elif pid == programme.audio_pid and not programme.video_pid:
                self._take_audio_pes(at, payload)
        return False

    def _take_video_pes(self, at):
        pes = find_pes(gather(self.stream, at, self.window.end), is_video)
        if not pes or pes.pts is None:
            return
        self.cutter.note_video(pes.pts)
        if self._is_keyframe(pes.payload):
            self.cutter.video_keyframe(pes.pts, (self.h264.width, self.h264.height))
        self.webvtt.emit(pes.pts, self.cutter)

    def _is_keyframe(self, payload):
        if self.programme.video_kind == H264:
            return self.h264.is_keyframe(payload)
        return is_keyframe(payload)

    def _take_audio_pes(self, at, payload):
        """Only what the first packet holds is looked at."""
        pes = find_pes(self.stream[payload:at + PACKET_BYTES], is_audio)
        if pes and pes.pts is not None and pes.payload:
            self.cutter.audio_pes(pes.pts)

    def _is_filtered(self, pid):
        if pid == PADDING_PID and self.options.no_padding:
            return True
        return self.options.start_pat_pmt and pid in (PAT_PID, self.programme.pmt_pid)

    def _write(self, at, pid):
        output = self._output_for(pid) if self.cutter.has_started else None
        return output is None or output.write(self.stream[at:at + PACKET_BYTES])

    def _output_for(self, pid):
        if not self.options.separate_streams:
            return self.bundle.video
        if pid == 0:
            return None
        if pid == self.programme.video_pid:
            return self.bundle.video
        if pid == self.programme.audio_pid:
            return self.bundle.audio
        if pid == self.programme.second_audio_pid and self.options.sap:
            return self.bundle.second_audio
        return None
