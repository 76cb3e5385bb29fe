"""Random caption events, all of them sent before the program starts."""

from reading.captions import INT64, TEXT, UINT64, CaptionPacket, ControlSocket
from .dice import Dice
from .pes_packet import CLOCK_TICKS

LANGUAGES = (b"", b"", b"eng", b"spa", b"fre", b"v0", b"v12", b"vx", b"xx-YY", b"q", b"ja")
TEXTS = (b"Hello", b"two\r\nlines", b"a\n\nb", b"a\rb\n", b"", b"\n", b"x\n\r\r\ny",
         "été ♪".encode())
SPANS_MS = (0, 10, 33, 500, 2000, 60000, -50, 1 << 45)
UNEXPECTED_PAIRS = (
    (b"start", UINT64, 5), (b"service", INT64, -3), (b"colour", TEXT, b"red"), (b"zz", INT64, -9),
    (b"text", UINT64, 1), (b"service", UINT64, 0), (b"service", UINT64, 257),
    (b"language", TEXT, b'"'), (b"language", TEXT, b"a\nb"), (b"language", TEXT, b"l" * 256))


def random_control_socket(seed, first_pts, last_pts):
    """Captions for a stream that lasts from one PTS to the other."""
    dice = Dice(seed, "captions")
    languages = dice.sample(LANGUAGES, dice.randrange(1, 4))
    count = dice.choice([0, 3, 20, 60, 60, 400])
    even_step = abs(last_pts - first_pts) // (count + 1) + 1
    time = dice.choice([first_pts] * 8 + [0, CLOCK_TICKS - 60 * 90000, dice.randrange(CLOCK_TICKS)])
    packets = []
    for index in range(count):
        time += dice.choice([0, 100, 9000, 90000, 300000, -5000, even_step, even_step, even_step,
                             2 * even_step])
        packets.append(_caption(dice, index, max(0, time), dice.choice(languages)))
    return ControlSocket(packets, hangs_up=dice.chance(0.05))


def _caption(dice, index, time, language):
    start = dice.randrange(10 ** 9)
    pairs = [
        (b"service", UINT64, dice.choice([1, 1, 1, 2, 13, 256])),
        (b"start", INT64, start),
        (b"end", INT64, start + dice.choice(SPANS_MS)),
        (b"mpeg timestamp", UINT64, time % dice.choice([CLOCK_TICKS, CLOCK_TICKS, 1 << 63])),
        (b"text", TEXT, dice.choice(TEXTS))]
    if dice.chance(0.6):
        pairs.append((b"now", INT64, dice.choice([0, 5, start, -1, -7])))
    if dice.chance(0.3):
        pairs.append((b"cue settings", TEXT, dice.choice([b"line:90%", b""])))
    if dice.chance(0.2):
        pairs.append((b"identifier", TEXT, b"id%d" % index))
    if dice.chance(0.2):
        pairs.append((b"frame", INT64, index))
    if language:
        pairs.append((b"language", TEXT, language))
    if dice.chance(0.1):
        pairs.append(dice.choice(UNEXPECTED_PAIRS))
    if dice.chance(0.05):
        pairs.pop(0)
    packet = CaptionPacket(pairs)
    if dice.chance(0.05):
        packet.status = dice.randrange(3)
    if dice.chance(0.05):
        packet.command = dice.choice([b"vtt2", b"vt", b"", b"hello"])
    return packet
