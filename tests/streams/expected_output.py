"""What the program has to write and say for a whole stream, worked out from the stream alone.

Deliberately shaped unlike the program: it takes ffprobe's word for pictures and times, and knows the
whole stream at once. Only what the default mode does is here.
"""

from dataclasses import dataclass, field

from transport_stream import PAT_PID, packets_of

TICKS_PER_SECOND = 90000
LONGEST_STEP = 600 * TICKS_PER_SECOND - 1  # anything longer is a jump in time
UNLISTED_KEPT = 3  # finished fragments that stay on disk, older than the listed ones
UNMEASURED = -1.0


@dataclass
class Entry:
    name: str
    number: int
    duration: float


@dataclass
class Rendition:
    """One media playlist: `entries` are the fragments that are on disk and finished."""
    playlist: str
    backlog: int
    target_duration: int
    entries: list = field(default_factory=list)

    def listed(self):
        return self.entries[-self.backlog:]

    def add(self, entry, messages):
        self.entries.append(entry)
        while len(self.entries) > self.backlog + UNLISTED_KEPT:
            gone = self.entries.pop(0)
            if gone.name:
                messages.append(f"Deleting old fragment {gone.name}")

    def warn(self, messages):
        """A playlist with nameless fragments says so at every writing."""
        messages += [f"M3U8 warning: Fragment name is missing for segment {entry.number} "
                     f"'{self.playlist}' (FIX THIS BUG)"
                     for entry in self.listed() if not entry.name]

    def text(self):
        lines = ["#EXTM3U", "#EXT-X-VERSION:4", f"#EXT-X-TARGETDURATION:{self.target_duration}"]
        if self.listed():
            lines += [f"#EXT-X-MEDIA-SEQUENCE:{self.listed()[0].number}"]
        lines += [""]
        for entry in self.listed():
            if entry.name:
                lines += [f"#EXTINF:{entry.duration:.3f},", entry.name]
            lines += [""]
        return "".join(line + "\n" for line in lines)


@dataclass
class Output:
    messages: list  # standard error, line by line
    files: dict  # name -> bytes, all that is in the directory in the end
    fragments: list  # (name, first byte, end) of every fragment ever opened, in stream order
    main: Rendition  # with its entries as they stand in the end


def start_of_analysis(stream, programme):
    """The position of the packet with which the video PID is known.

    A table is looked at when the next one of its PID begins: the second PAT locks the programme, and
    of the PMTs after it, again the second chooses the streams.
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
    for picture in programme.pictures:
        if picture.position < analysed_from:
            continue
        pts = picture.pts
        continuous_until = (opened_at if opened_at is not None else -1) + LONGEST_STEP
        if last_pts is not None and last_pts < pts <= continuous_until:
            steps += pts - last_pts
        last_pts = pts
        if not picture.intra:
            continue
        if opened_at is None:
            duration = steps / TICKS_PER_SECOND if 1 <= steps <= LONGEST_STEP else UNMEASURED
            due = pts + span
        elif pts > due:
            duration = (pts - opened_at) / TICKS_PER_SECOND
            due = pts + span
        else:
            continue  # not later than due: a keyframe exactly then does not cut
        cuts.append((picture.position, duration))
        opened_at, steps = pts, 0
    return cuts


def master_text(width, height, bandwidth):
    captions = ['#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="caps",'
                f'NAME="CC{n}",INSTREAM-ID="CC{n}"' for n in (1, 2, 3, 4)]
    captions[0] += ",AUTOSELECT=YES,DEFAULT=YES"
    lines = ["#EXTM3U", "#EXT-X-VERSION:4", "#EXT-X-INDEPENDENT-SEGMENTS", *captions, "",
             f'#EXT-X-STREAM-INF:BANDWIDTH={bandwidth},CLOSED-CAPTIONS="caps",'
             f"RESOLUTION={width}x{height}", "ch1.m3u8.av.m3u8", ""]
    return "".join(line + "\n" for line in lines)


def expected_output(stream, programme, frag_duration, backlog):
    messages = [
        f"PAT: Locking onto Program {programme.number:04x}h PMT {programme.pmt_pid:04x}h",
        f"Got PAT. Chose PMT={programme.pmt_pid:04x}h",
        f"Got PMT. Chose audio={programme.audio_pid:04x}h video={programme.video_pid:04x}h.",
    ]
    main = Rendition("ch1.m3u8.av.m3u8", backlog, frag_duration)
    # Separate audio and secondary audio have no packets, no fragments and no playlist's name here,
    # but they are cut as well.
    nameless = [Rendition("", backlog, frag_duration), Rendition("", backlog, frag_duration)]
    fragments = []
    bandwidth = 0

    cuts = cuts_of(stream, programme, frag_duration)
    for begin, duration in cuts:
        name = ""
        if fragments:
            name, first, _ = fragments[-1]
            fragments[-1] = (name, first, begin)
            if duration > 1.0:
                bandwidth = int((begin - first) * 8.0 / duration)
        if duration > 0.0:
            # A first cut with a measured duration closes a fragment that never was: it is nameless
            # and shares its number with the first real one.
            main.add(Entry(name, max(len(fragments) - 1, 0), duration), messages)
        main.warn(messages)
        for rendition in nameless:
            if duration > 0.0:
                number = rendition.entries[-1].number + 1 if rendition.entries else 0
                rendition.add(Entry("", number, duration), messages)
            rendition.warn(messages)
        fragments.append((f"ch1.{len(fragments):08}.ts", begin, len(stream)))
    messages.append("Stream EOF")
    main.warn(messages)

    # The master playlist is written at the next pause after a cut, and each PMT makes one.
    pauses = [packet.position for packet in packets_of(stream, {programme.pmt_pid})]
    assert pauses[-1] > cuts[-1][0], "the stream ends before the last cut shows in the master"

    on_disk = {entry.name for entry in main.entries} | {fragments[-1][0]}
    files = {name: stream[first:end] for name, first, end in fragments if name in on_disk}
    files[main.playlist] = main.text().encode()
    files["ch1.m3u8"] = master_text(programme.video["width"], programme.video["height"],
                                    bandwidth).encode()
    # The nameless playlists are written but cannot be given a name.
    files[".tmp"] = nameless[-1].text().encode()
    return Output(messages, files, fragments, main)
