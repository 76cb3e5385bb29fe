"""What the program has to write and say for a whole stream, worked out from the stream alone.

Deliberately shaped unlike the program: it takes ffprobe's word for pictures and times, and knows
the whole stream at once.
"""

from bisect import bisect
from dataclasses import dataclass, field

from options import Options
from program_tables import pmt_of_one_stream, with_counter, with_network_entries_last
from transport_stream import PACKET_BYTES, PADDING_PID, PAT_PID, packets_of, pids_of

TICKS_PER_SECOND = 90000
LONGEST_STEP = 600 * TICKS_PER_SECOND - 1  # anything longer is a jump in time
LONGEST_WAY_BACK = TICKS_PER_SECOND  # before the last cut; what lies further back cuts at once
UNLISTED_KEPT = 3  # finished fragments that stay on disk, older than the listed ones
LEAST_BYTES_MEASURED = 1024  # of a fragment, for the bandwidth
UNMEASURED = -1.0
MASTER = "ch1.m3u8"


@dataclass
class Fragment:
    name: str
    number: int
    begin: int  # the stretch of the stream that it covers
    end: int
    content: bytes


@dataclass
class Entry:
    name: str  # empty where no fragment was open
    number: int
    duration: float


@dataclass
class Rendition:
    """One media playlist, and the fragments that were made for it."""
    options: Options
    playlist: str
    fragment_base: str = ""
    pids: set = field(default_factory=set)  # that it takes; None: all but those that are filtered
    always_opened: bool = True  # with tables alone if no packet comes
    pid: int = 0  # of its one stream, if it is a separate one
    fragments: list = field(default_factory=list)  # all ever opened
    entries: list = field(default_factory=list)  # listed and unlisted, not yet deleted
    deleted: set = field(default_factory=set)

    def listed(self):
        return self.entries[-self.options.frag_backlog:]

    def retire(self, duration, messages):
        if duration > 0.0:
            if self.fragments:
                fragment = self.fragments[-1]
                entry = Entry(fragment.name, fragment.number, duration)
            else:
                # Nothing was open: a nameless entry, with the number that the first fragment will
                # have as well if there is one.
                entry = Entry("", self.entries[-1].number + 1 if self.entries else 0, duration)
            self.entries.append(entry)
        while len(self.entries) > self.options.frag_backlog + UNLISTED_KEPT:
            gone = self.entries.pop(0)
            if gone.name:
                messages.append(f"Deleting old fragment {gone.name}")
                self.deleted.add(gone.name)
        self.warn(messages)

    def warn(self, messages):
        """A playlist with nameless fragments says so at every writing."""
        messages += [f"M3U8 warning: Fragment name is missing for segment {entry.number} "
                     f"'{self.playlist}' (FIX THIS BUG)"
                     for entry in self.listed() if not entry.name]

    def text(self):
        lines = ["#EXTM3U", "#EXT-X-VERSION:4",
                 f"#EXT-X-TARGETDURATION:{self.options.frag_duration}"]
        if self.listed():
            lines += [f"#EXT-X-MEDIA-SEQUENCE:{self.listed()[0].number}"]
        lines += [""]
        for entry in self.listed():
            if entry.name:
                lines += [f"#EXTINF:{entry.duration:.3f},", entry.name]
            lines += [""]
        return "".join(line + "\n" for line in lines)

    def listed_fragments(self):
        names = {entry.name for entry in self.listed()}
        return [fragment for fragment in self.fragments if fragment.name in names]

    def playable(self):
        """Lists fragments with more than tables in them."""
        return bool(self.listed_fragments() and (self.pids is None or self.pids))

    def files(self):
        on_disk = {f.name: f.content for f in self.fragments if f.name not in self.deleted}
        # A playlist without a name is written all the same, but cannot be given one.
        return on_disk | {self.playlist or ".tmp": self.text().encode()}


@dataclass
class Output:
    messages: list  # standard error, line by line
    files: dict  # name -> bytes, all that is in the directory in the end
    renditions: list  # main, audio, secondary audio


def renditions_of(programme, options):
    if not options.separate_streams:
        playlist = MASTER if options.no_multilevel else MASTER + ".av.m3u8"
        # Separate audio and secondary audio have no packets, no fragments and no playlist's name
        # here, but they are cut as well.
        return [Rendition(options, playlist, "ch1", None), Rendition(options, ""),
                Rendition(options, "")]
    # Where there is no video every rendition waits for a packet before it opens a fragment.
    kinds = [("v", programme.video_pid), ("a", programme.audio_pid), ("sap", programme.sap_pid)]
    renditions = [Rendition(options, f"{MASTER}.{kind}.m3u8", f"ch1.{kind}", {pid} - {0},
                            programme.video is not None, pid) for kind, pid in kinds]
    if not options.sap:
        renditions[2].fragment_base = ""
    return renditions


def start_of_analysis(stream, programme):
    """The position of the packet with which the programme's streams are known.

    A table is looked at when the next one of its PID begins: the second PAT locks the programme,
    and of the PMTs after it, again the second chooses the streams.
    """
    tables = [packet for packet in packets_of(stream, {PAT_PID, programme.pmt_pid})
              if packet.starts_unit]
    lock = [packet for packet in tables if packet.pid == PAT_PID][1]
    choice = [packet for packet in tables
              if packet.pid == programme.pmt_pid and packet.position > lock.position][1]
    return choice.position


def cuts_of(stream, programme, frag_duration):
    """(position, duration in seconds or UNMEASURED) of every cut."""
    span = frag_duration * TICKS_PER_SECOND
    analysed_from = start_of_analysis(stream, programme)
    cuts = []
    last_pts, steps, opened_at, due = None, 0, None, None
    for unit in programme.units:
        if unit.position < analysed_from:
            continue
        pts = unit.pts
        continuous_until = (opened_at if opened_at is not None else -1) + LONGEST_STEP
        # Audio without video neither adds up its steps nor takes any of them for a jump.
        if programme.video and last_pts is not None and last_pts < pts <= continuous_until:
            steps += pts - last_pts
        last_pts = pts
        if not unit.may_cut:
            continue
        jump = programme.video and opened_at is not None and abs(pts - opened_at) > LONGEST_STEP
        if opened_at is None or jump:
            duration = steps / TICKS_PER_SECOND if 1 <= steps <= LONGEST_STEP else UNMEASURED
            due = pts + span
        elif opened_at - LONGEST_WAY_BACK <= pts <= due:
            continue  # not later than due: a keyframe exactly then does not cut
        else:
            duration = (pts - opened_at if pts > opened_at else span) / TICKS_PER_SECOND
            # Never sooner than the fragment that was cut short would have ended.
            due = max(pts, due) + span
        cuts.append((unit.position, duration))
        opened_at, steps = pts, 0
    return cuts


class FragmentTables:
    """The PAT and the PMT that fragments begin with, and the counters in them: one for all PATs and
    one for all PMTs, whatever the rendition."""

    def __init__(self, stream, programme):
        self.stream = stream
        self.positions = {pid: [packet.position for packet in packets_of(stream, {pid})]
                          for pid in (PAT_PID, programme.pmt_pid)}
        self.pmt_pid = programme.pmt_pid
        self.counters = {PAT_PID: 0, programme.pmt_pid: 0}

    def _last_before(self, pid, position):
        begin = self.positions[pid][bisect(self.positions[pid], position) - 1]
        return self.stream[begin:begin + PACKET_BYTES]

    def _counted(self, pid, packet):
        self.counters[pid] += 1
        return with_counter(packet, self.counters[pid] - 1)

    def at(self, position, rendition, options):
        tables = self._counted(PAT_PID, self._last_before(PAT_PID, position))
        pmt = self._last_before(self.pmt_pid, position)
        if not options.separate_streams:
            return tables + self._counted(self.pmt_pid, pmt)
        if rendition.pid:
            return tables + self._counted(self.pmt_pid, pmt_of_one_stream(pmt, rendition.pid))
        return tables  # no such stream in the programme, so none to tell of


def master_text(programme, options, bandwidth):
    captions = ['#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="caps",'
                f'NAME="CC{n}",INSTREAM-ID="CC{n}"' for n in (1, 2, 3, 4)]
    captions[0] += ",AUTOSELECT=YES,DEFAULT=YES"
    lines = ["#EXTM3U", "#EXT-X-VERSION:4"]
    variant = f'#EXT-X-STREAM-INF:BANDWIDTH={bandwidth},CLOSED-CAPTIONS="caps"'
    if options.separate_streams:
        audio = ['#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",AUTOSELECT=YES,DEFAULT=YES,'
                 f'LANGUAGE="eng",NAME="Main",URI="{MASTER}.a.m3u8"',
                 '#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",AUTOSELECT=NO,DEFAULT=NO,'
                 f'LANGUAGE="spa",NAME="SAP",URI="{MASTER}.sap.m3u8"']
        lines += [*captions, *audio[:2 if options.sap else 1]]
        variant += ',AUDIO="aud"'
    else:
        lines += ["#EXT-X-INDEPENDENT-SEGMENTS", *captions]
    # The size is known of H.264 only.
    if programme.video and programme.video["codec_name"] == "h264":
        variant += f",RESOLUTION={programme.video['width']}x{programme.video['height']}"
    playlist = f"{MASTER}.v.m3u8" if options.separate_streams else f"{MASTER}.av.m3u8"
    return "".join(line + "\n" for line in [*lines, "", variant, playlist, ""])


def first_messages(programme):
    return [f"PAT: Locking onto Program {programme.number:04x}h PMT {programme.pmt_pid:04x}h",
            f"Got PAT. Chose PMT={programme.pmt_pid:04x}h",
            f"Got PMT. Chose audio={programme.audio_pid:04x}h video={programme.video_pid:04x}h."]


def expected_output(stream, programme, given_options):
    options, messages = given_options.in_force()
    messages += first_messages(programme)
    if options.pat_nit_not_first:
        stream = with_network_entries_last(stream)
    pids = pids_of(stream)
    tables = FragmentTables(stream, programme)
    filtered = {PADDING_PID} if options.no_padding else set()
    if options.start_pat_pmt:
        filtered |= {PAT_PID, programme.pmt_pid}
    renditions = renditions_of(programme, options)
    bandwidth = 0

    def packets_for(rendition, begin, end):
        if rendition.pids is None and not filtered:
            return stream[begin:end]
        return b"".join(stream[at:at + PACKET_BYTES] for at in range(begin, end, PACKET_BYTES)
                        if (pids[at // PACKET_BYTES] not in filtered if rendition.pids is None
                            else pids[at // PACKET_BYTES] in rendition.pids))

    cuts = cuts_of(stream, programme, options.frag_duration)
    ends = [begin for begin, _ in cuts[1:]] + [len(stream)]
    for number, ((begin, duration), end) in enumerate(zip(cuts, ends)):
        if programme.video and number > 0 and duration > 1.0:
            closed = len(renditions[0].fragments[-1].content)
            if closed >= LEAST_BYTES_MEASURED:
                bandwidth = int(closed * 8.0 / duration)
        for rendition in renditions:
            rendition.retire(duration, messages)
        for rendition in renditions:
            content = packets_for(rendition, begin, end)
            if rendition.fragment_base and (rendition.always_opened or content):
                name = f"{rendition.fragment_base}.{number:08}.ts"
                if options.start_pat_pmt:
                    content = tables.at(begin, rendition, options) + content
                rendition.fragments.append(Fragment(name, number, begin, end, content))
    messages.append("Stream EOF")
    for rendition in reversed(renditions):
        if rendition.fragments:
            rendition.warn(messages)

    files = {}
    for rendition in renditions:
        files |= rendition.files()
    if not options.no_multilevel:
        # The master playlist is written at the next pause after a cut, and each PMT makes one.
        pauses = [packet.position for packet in packets_of(stream, {programme.pmt_pid})]
        assert pauses[-1] > cuts[-1][0], "the stream ends before the last cut shows in the master"
        files[MASTER] = master_text(programme, options, bandwidth).encode()
    return Output(messages, files, renditions)
