"""Caption events: packets of the control socket, taken in at most one per pass, become cues that
wait in a queue per language."""

import re
from collections import deque
from dataclasses import dataclass

TEXT, UINT64, INT64 = 0, 2, 5
COMPLETE_AND_FOR_USE = 3
SERVICES = range(1, 257)
LONGEST_QUEUE = 128
NO_LANGUAGE = re.compile(rb'[\x00-\x1F\x7F"]|.{256}', re.DOTALL)

TYPE_OF_FIELD = {
    b"start": INT64, b"end": INT64, b"now": INT64, b"frame": INT64, b"mpeg timestamp": UINT64,
    b"text": TEXT, b"identifier": TEXT, b"cue settings": TEXT, b"language": TEXT,
}


@dataclass
class CaptionPacket:
    pairs: list  # (name, type, value); texts and names are bytes
    command: bytes = b"vtt"
    status: int = COMPLETE_AND_FOR_USE


@dataclass
class ControlSocket:
    """What the peer has sent before the program starts, and whether it then hangs up."""

    packets: list
    hangs_up: bool = False


@dataclass
class Cue:
    service: int | None = None
    language: bytes = b""
    text: bytes = b""
    identifier: bytes = b""
    cue_settings: bytes = b""
    start: int = -1
    end: int = -1
    now: int = -1
    frame: int = -1
    mpeg_timestamp: int = 0


class CaptionIntake:
    def __init__(self, socket, options, say):
        self.waiting = deque(socket.packets) if socket else deque()
        self.hangs_up = socket is not None and socket.hangs_up
        self.keeps_cues = not options.no_multilevel
        self.say = say
        self.queues = {}

    def take_one(self):
        """False once the socket is lost."""
        if not self.waiting:
            return not self.hangs_up
        packet = self.waiting.popleft()
        if packet.command == b"vtt" and packet.status == COMPLETE_AND_FOR_USE:
            self._take_cue(self._cue_of(packet))
        return True

    def _cue_of(self, packet):
        cue = Cue()
        for name, kind, value in packet.pairs:
            if name == b"service" and kind == UINT64:
                if value in SERVICES:
                    cue.service = value - 1
            elif TYPE_OF_FIELD.get(name) == kind and not (
                    name == b"language" and NO_LANGUAGE.search(value)):
                setattr(cue, name.decode().replace(" ", "_"), value)
            else:
                shown = value if kind == TEXT else b"%d" % value
                self.say(b"Unhandled nv '%s' '%s'\n" % (name, shown))
        return cue

    def _take_cue(self, cue):
        if cue.service is None:
            self.say(b"Bad service -1\n")
            return
        language = cue.language or b"v%d" % cue.service
        if language not in self.queues:
            self.say(b"New language '%s'\n" % language)
            self.queues[language] = deque()
        queue = self.queues[language]
        surplus = len(queue) - LONGEST_QUEUE
        if surplus > 0:
            self.say(b"VTT queue '%s' overflow by %d\n" % (language, surplus))
            for _ in range(surplus):
                queue.popleft()
        if self.keeps_cues:
            queue.append(cue)
