"""Random streams: a programme of video and audio between padding, other programmes and damage."""

from .dice import Dice, filler
from .h264_pictures import H264Pictures
from .mpeg_video_pictures import MpegVideoPictures
from .multiplex import PACKET_BYTES, PAYLOAD_BYTES, Multiplex
from .pes_packet import CLOCK_TICKS, pes_packet
from .programme_tables import H264, MPEG1_VIDEO, MPEG2_VIDEO, ProgrammeTables

SECOND = 90000
# The program reads this much before it does anything.
FIRST_FILL = 2 << 20
# No sync is lost before the programme has been found; most runs would end there.
SAFE_BEGINNING = 600000
SERVICE_INFORMATION_PID = 0x11

# Where a stream's clock starts: at its ends, and where a step is just no discontinuity any more.
CLOCK_STARTS = (0, 1, SECOND, 10 * SECOND, 53999000, 54000000, CLOCK_TICKS - 30 * SECOND)
JUMPS = (61000000, 54000000, 53999999, 53999998, -61000000, -180000, -90000, -89999, -40000000,
         30000000, CLOCK_TICKS // 2)
# What may stand in a video PID's unit before the video's PES header.
STRAY_BEGINNINGS = (
    b"\0\0\1\xbb\0\3abc", b"\0\0\1\xbe\0\5\xff\xff", b"\0\0\1\xbd\0\0\x80\0\0xy",
    b"\0\0\1\xc0\0\0\x80\xc0\0", b"\0\0", b"\0\0\1", b"\0\0\1\xb3", b"\0\0\1\xf0\0\0",
    b"\0\0\1\xf0\0\2ab", b"\0\0\1\xe0\0\1\x80\0\0", b"\0\0\1\xe0\0\0\x40\x80\5")


class RandomStream:
    """Of a size that holds ten to sixty fragments.

    frag_duration: in seconds; second_audio: whether there must be two audio streams at least."""

    def __init__(self, seed, frag_duration, second_audio):
        self.dice = dice = Dice(seed, "stream")
        self.damage = dice.choice([0, 0, 0.02, 0.05, 0.2])
        self.frag_duration = frag_duration
        self.multiplex = Multiplex(Dice(seed, "transmission"), self.damage)

        video_type = dice.choice([H264] * 12 + [MPEG1_VIDEO] * 2 + [MPEG2_VIDEO] * 2 + [None] * 3)
        audio_count = dice.choice([0, 1, 1, 1, 2, 2, 3])
        if second_audio:
            audio_count = max(audio_count, 2)
        elif not video_type and dice.chance(0.8):
            audio_count = max(audio_count, 1)
        self.tables = ProgrammeTables(Dice(seed, "tables"), self.damage, video_type, audio_count)
        pictures = H264Pictures if video_type == H264 else MpegVideoPictures
        self.pictures = pictures(Dice(seed, "pictures"), self.damage)
        self.has_video = video_type is not None

        self._draw_size_and_rates()
        self._draw_clock()
        self._draw_headers()
        self.waiting_audio = []

    def _draw_size_and_rates(self):
        dice = self.dice
        self.exact_size = dice.choice(
            [FIRST_FILL, FIRST_FILL - 1, SAFE_BEGINNING] + [None] * 45)
        self.size = self.exact_size or int(dice.uniform(2.2e6, 4e6))
        # Most bytes of a stream longer than the input window are padding, which costs little.
        self.padding_burst = 0
        if not self.exact_size and dice.chance(0.06):
            self.size = int(dice.uniform(9e6, 14e6))
            self.padding_burst = dice.randrange(500, 3000)
        self.picture_bytes = dice.choice([300, 900, 2500, 2500, 6000, 12000])
        self.has_gaps = dice.chance(0.8)
        self.padding_rate = dice.choice([0, 0, 0.05, 0.3])
        self.tables_every = dice.choice([20, 60, 60, 150, 150, 150, 300, 500, 1200])
        self.until_tables = 0 if dice.chance(0.9) else dice.randrange(2500)
        self.loses_sync_early = dice.chance(0.1)

    def _draw_clock(self):
        dice = self.dice
        pictures = max(20, int(min(self.size, 4e6) * 0.75 / (self.picture_bytes + 400)))
        fragments = dice.randrange(10, 61)
        target = self.frag_duration * SECOND
        self.step = max(900, min(3 * SECOND, fragments * target // pictures))
        self.group = max(1, int(target / self.step / dice.choice([0.7, 1, 2, 3, 4])))
        # Keyframes exactly as far apart as a fragment is long.
        self.is_exact = dice.chance(0.2)
        if self.is_exact:
            self.step = max(1, target // self.group)
        self.pts = dice.choice(CLOCK_STARTS + (
            CLOCK_TICKS - fragments * target // 2, dice.randrange(CLOCK_TICKS))) % CLOCK_TICKS
        self.first_pts = self.pts
        self.jump_rate = dice.choice([0, 0, 0, 0.003, 0.01])

    def _draw_headers(self):
        dice = self.dice
        self.video_id = dice.choice([0xE0, 0xE0, 0xE5, 0xEF])
        self.audio_id = 0xC0 if self.has_video else dice.choice([0xC0] * 4 + [0xC1, 0xDF, 0xBD])
        self.is_video_bounded = dice.chance(0.4)
        self.pts_rate = dice.choice([1, 1, 0.95, 0.7])
        # Keyframes that lack their PTS, while other pictures have it.
        self.keyframe_pts_rate = dice.choice([1] * 8 + [0.5, 0])

    @property
    def last_pts(self):
        """Once generate() has run."""
        return self.pts

    def generate(self):
        self._begin()
        until_keyframe = 0 if self.dice.chance(0.7) else self.dice.randrange(10)
        while len(self.multiplex.data) < self.size:
            is_key = until_keyframe <= 0
            if is_key:
                until_keyframe = self._next_group()
            until_keyframe -= 1
            if self.dice.chance(self.jump_rate):
                self.pts += self.dice.choice(JUMPS + (-self.frag_duration * SECOND,))
            if self.has_video:
                self._send_picture(is_key)
            else:
                self._after_packet()
            self._send_audio()
            if self.padding_burst and self.dice.chance(0.05):
                self.multiplex.padding(self.padding_burst)
            self.pts += self.step + (0 if self.dice.chance(0.95) else self.dice.randrange(-3, 4))
        return self._with_end(bytes(self.multiplex.data))

    def _begin(self):
        dice = self.dice
        if dice.chance(0.1):
            self.multiplex.data += bytes(dice.choices(b"\x00\x11\x22", k=dice.randrange(1, 900)))
        if dice.chance(0.01):
            self.multiplex.data += b"\x47" + b"\x11" * 300

    def _with_end(self, data):
        dice = self.dice
        if self.exact_size:
            return data[:self.exact_size]
        if dice.chance(0.25):  # mostly inside a packet
            return data[:-dice.randrange(1, 2 * PACKET_BYTES + 20)]
        if dice.chance(0.1):
            return data + dice.randbytes(dice.randrange(1, 500))
        return data

    def _next_group(self):
        if self.is_exact:
            return self.group
        stretch = self.dice.choice([1, 1, 1, 0.5, 1.5, 3, 2 * self.dice.random()])
        return max(1, int(self.group * stretch))

    def _send_picture(self, is_key):
        dice = self.dice
        size = int(self.picture_bytes * dice.choice([0.3, 1, 1, 1.2, 2]) * (2.5 if is_key else 1))
        if dice.chance(0.02):
            size = dice.choice([1, 10, 100, 150])
        elif dice.chance(0.01):
            size = dice.choice([30000, 70000])
        picture = self.pictures.access_unit(is_key, size)
        if dice.chance(self.damage / 4):
            picture = b""
        parts = [picture]
        if dice.chance(0.04) and len(picture) > 20:  # over two PES packets
            middle = dice.randrange(1, len(picture))
            parts = [picture[:middle], picture[middle:]]
        elif dice.chance(0.03):  # two in one
            parts = [picture + self.pictures.access_unit(dice.chance(0.2), size)]
        has_pts = dice.chance(self.pts_rate * (self.keyframe_pts_rate if is_key else 1))
        for part in parts:
            pts = self.pts if has_pts else None
            unit = pes_packet(dice, self.video_id, part, pts, self.is_video_bounded, self.damage)
            if dice.chance(self.damage / 4 + 0.005):
                unit = self._stray_beginning() + unit
            self.multiplex.unit(self.tables.video_pid, unit, self.pts, self._after_packet)
            has_pts = dice.chance(0.3)

    def _stray_beginning(self):
        if self.dice.chance(0.2):
            return self.dice.choice([b"\0\0\1\xba" + filler(self.dice, 10), filler(self.dice, 60)])
        return self.dice.choice(STRAY_BEGINNINGS)

    def _send_audio(self):
        dice = self.dice
        for index, (_, pid) in enumerate(self.tables.audio):
            if not self.has_video and index == 0:
                size = max(8, int(self.picture_bytes * dice.uniform(0.3, 1.2)))
                pts = self.pts if dice.chance(self.pts_rate) else None
                unit = pes_packet(dice, self.audio_id, filler(dice, size), pts,
                                  dice.chance(0.9), self.damage)
                self.multiplex.unit(pid, unit, after_each=self._after_packet)
            elif dice.chance(0.6) and len(self.waiting_audio) < 4:
                unit = pes_packet(dice, dice.choice([0xC0, 0xC0, 0xBD]),
                                  filler(dice, dice.randrange(50, 900)), self.pts, True)
                self.waiting_audio.append((pid, unit, True))
        if not self.has_video and not self.tables.audio:
            self.multiplex.packet(self.tables.unlisted_pid, filler(dice, PAYLOAD_BYTES), False)

    def _after_packet(self):
        """What comes between two packets of the main stream."""
        self.until_tables -= 1
        if self.until_tables < 0:
            self.until_tables = self.tables_every
            self.tables.send(self.multiplex)
        if self.has_gaps:
            self._send_others()
            if self.waiting_audio and self.dice.chance(0.4):
                pid, unit, starts_unit = self.waiting_audio.pop(0)
                self.multiplex.packet(pid, unit[:PAYLOAD_BYTES], starts_unit)
                if len(unit) > PAYLOAD_BYTES:
                    self.waiting_audio.insert(0, (pid, unit[PAYLOAD_BYTES:], False))
            self._damage()

    def _send_others(self):
        dice, multiplex = self.dice, self.multiplex
        if dice.chance(self.padding_rate):
            multiplex.padding()
        elif dice.chance(0.035):
            kind = dice.choice(["unlisted"] * 20 + ["private"] * 10 + ["service"] * 3 + ["clock"])
            if kind == "unlisted":
                multiplex.packet(self.tables.unlisted_pid, filler(dice, PAYLOAD_BYTES),
                                 dice.chance(0.1))
            elif kind == "private":
                multiplex.packet(self.tables.private_pid,
                                 b"\0\0\1\xbd\0\0\x80\0\0" + filler(dice, 175), True)
            elif kind == "service":
                multiplex.packet(SERVICE_INFORMATION_PID, filler(dice, PAYLOAD_BYTES), True)
            else:
                multiplex.packet(self.tables.pcr_pid, b"", False)

    def _damage(self):
        if not self.damage or not self.dice.chance(self.damage / 60):
            return
        if self.dice.chance(0.6):
            pid = self.tables.video_pid if self.has_video else self.tables.unlisted_pid
            self.multiplex.undecodable_packet(pid)
        elif self.loses_sync_early or len(self.multiplex.data) > SAFE_BEGINNING:
            self.multiplex.lose_sync()
