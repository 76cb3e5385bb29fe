"""All of a case, from its seed."""

from dataclasses import dataclass

from reading.captions import ControlSocket
from .caption_events import random_control_socket
from .command_line import has_flag, random_arguments, value_of
from .dice import Dice
from .earlier_files import random_earlier_files
from .stream import RandomStream

# A page, seven packets as in a datagram, and what is no multiple of a packet.
PIECES = [4096, 1316, 3000]


@dataclass
class Case:
    stream: bytes
    arguments: list
    earlier_files: dict
    socket: ControlSocket | None
    piece: int | None  # what one write brings into a pipe; None: the input is a regular file


def random_case(seed, with_captions=False):
    arguments = random_arguments(seed)
    stream = RandomStream(seed, _frag_duration(arguments),
                          second_audio=has_flag(arguments, "sap"))
    data = stream.generate()
    socket = None
    # A socket named by the arguments would take the place of this one.
    if with_captions and value_of(arguments, "anon-sock", None) is None:
        socket = random_control_socket(seed, stream.first_pts, stream.last_pts)
    piece = Dice(seed, "input").choice([None, None] + PIECES)
    return Case(data, arguments, random_earlier_files(seed, arguments), socket, piece)


def _frag_duration(arguments):
    value = value_of(arguments, "frag-duration", "4")
    return min(20, int(value)) if value.isdigit() and int(value) > 0 else 4
