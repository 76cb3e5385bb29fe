"""Runs vorn_caption_feed on streams that carry captions, and compares what it sends with what was
put in and with what ffmpeg reads out of the same stream.

usage: caption_stream_test.py FEEDER RECEIVER TEST
"""

import re
import subprocess
import sys
import tempfile
from dataclasses import dataclass, replace
from functools import partial
from pathlib import Path
from random import Random

import cea608
import make_stream
import teletext
import transport

FRAME_MS = 1001 / 30
LONGEST_RUN_S = 60


@dataclass
class Cue:
    language: str
    start: float  # milliseconds on the stream's clock
    end: float
    text: str
    settings: str = ""

    def plain(self):
        return re.sub(r"<[^>]*>", "", self.text)


def expect(condition, what):
    if not condition:
        sys.exit(what)


def expect_equal(what, got, want):
    expect(got == want, f"{what}:\n{got}\nwant\n{want}")


def sent_cues(programs, stream, captions, messages=""):
    """What the feeder sends, in the order of languages, and that nothing else happens."""
    feeder, receiver = programs
    arguments = [word for value in captions for word in ("--captions", value)]
    with open(stream, "rb") as file:
        done = subprocess.run([feeder, *arguments, "--", receiver], stdin=file, check=False,
                              capture_output=True, timeout=LONGEST_RUN_S)
    expect_equal("standard error", done.stderr.decode(), messages)
    expect_equal("exit status", done.returncode, 0)
    *lines, last = done.stdout.decode().splitlines()
    expect_equal("last line", last, f"{Path(stream).stat().st_size} bytes of input")
    cues = []
    for line in lines:
        _, language, start, end, _, ticks, rest = line.split(" ", 6)
        text, _, settings = rest.rpartition("  ")  # no identifier stands between them
        at = int(ticks) / 90
        cues.append(Cue(language, at, at + int(end) - int(start), text.replace("|", "\n"), settings))
    return sorted(cues, key=lambda cue: cue.language)  # which keeps the order in each


def joined(cues):
    """Cues that go on in pieces, as one."""
    whole = []
    for cue in cues:
        last = whole[-1] if whole else None
        if last and (last.text, last.settings) == (cue.text, cue.settings) and \
                abs(last.end - cue.start) < 2:
            whole[-1] = replace(last, end=cue.end)
        else:
            whole.append(cue)
    return whole


def ffmpeg_cues(stream, arguments):
    done = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-copyts", *arguments, "-f", "srt",
                           "-"], check=True, capture_output=True, timeout=LONGEST_RUN_S, cwd=stream.parent)
    cues = []
    # A caption of nothing but blanks leaves an empty line in its own block.
    for start, end, text in re.findall(r"^\d+\n(\S+) --> (\S+)\n(.*?)(?=\n\n\d+\n\S+ --> |\Z)",
                                       done.stdout.decode().replace("\r", ""), re.M | re.S):
        start, end = (sum(float(part) * unit for part, unit in
                          zip(re.split("[:,]", time), (3600000, 60000, 1000, 1)))
                      for time in (start, end))
        cues.append(Cue("", start, end, re.sub(r"<[^>]*>|\{[^}]*\}", "", text).strip()))
    return cues


READS_CC = ["-f", "lavfi", "-i", "movie=captions.ts[out+subcc]", "-map", "0:1"]


def expect_same_cues(got, want, early_ms=FRAME_MS, with_ends=True):
    """ffmpeg may begin a cue earlier than its first letter comes, and leave the end open."""
    expect_equal("texts", [cue.plain() for cue in got], [cue.plain() for cue in want])
    for ours, theirs in zip(got, want):
        expect(-FRAME_MS <= ours.start - theirs.start <= early_ms and
               (not with_ends or abs(ours.end - theirs.end) <= FRAME_MS),
               f"{ours}\nis not when ffmpeg has\n{theirs}")


def make(folder, codec, schedule, seconds=14, offset_s=0, **more):
    path = folder / "captions.ts"
    stream = make_stream.ffmpeg_stream(folder / "plain.ts", seconds, codec, offset_s)
    stream, first = make_stream.with_captions(stream, codec, schedule, **more)
    path.write_bytes(stream)
    return path, first / 90


def pop_on_schedule():
    one, three = cea608.Channel(1), cea608.Channel(3)
    return (cea608.Schedule()
            .at(0.5, one, one.pop_on((15, "Hello", 12)))
            .at(2.5, one, one.pop_on((1, "Two lines,", 8), (2, "one cue", 8)))
            .at(5, one, one.control(cea608.ERASE))
            .at(6, one, one.control(cea608.LOAD, cea608.CLEAR) + one.row(15, 12) +
                one.text("so ") + one.style(cea608.ITALICS) + one.text("slanted") +
                one.control(cea608.SHOW))
            .at(11.5, one, one.control(cea608.ERASE))
            .at(1, three, three.pop_on((15, "Hola", 12)))
            .at(3, three, three.control(cea608.ERASE)))


def test_pop_on(programs, folder, codec):
    stream, first = make(folder, codec, pop_on_schedule())
    cues = sent_cues(programs, stream, ["eng=cc1", "spa=cc3"])
    eng = joined([cue for cue in cues if cue.language == "eng"])
    expect_equal("texts", [(cue.text, cue.settings) for cue in eng],
                 [("Hello", ""), ("Two lines,\none cue", "line:10% position:30% align:start"),
                  ("so  <i>slanted</i>", "")])
    expect(all(cue.end - cue.start <= 3001 for cue in cues), "a cue that is too long for one piece")
    spa = [cue for cue in cues if cue.language == "spa"]
    expect_equal("texts", [cue.text for cue in spa], ["Hola"])
    # 12 codes and 2 pairs of letters, one per frame, before the caption is shown.
    expect(abs(spa[0].start - first - 1000 - 10 * FRAME_MS) <= 2 * FRAME_MS, f"{spa[0]}, {first}")
    expect(abs(spa[0].end - first - 3000) <= 2 * FRAME_MS, f"{spa[0]}, {first}")

    for field, ours in (("first", eng), ("second", spa)):
        expect_same_cues(ours, ffmpeg_cues(stream, ["-data_field", field, *READS_CC]))


def test_roll_up(programs, folder, codec):
    one = cea608.Channel(1)
    roll = [cea608.NEXT_LINE]
    schedule = (cea608.Schedule()
                .at(0.5, one, one.control(cea608.ROLL_2, *roll) + one.row(15) +
                    one.text("Rolling up, one"))
                .at(2.5, one, one.control(*roll) + one.text("and two lines"))
                .at(4.2, one, one.control(*roll) + one.text("and three"))
                .at(6, one, one.control(cea608.ERASE)))
    stream, _ = make(folder, codec, schedule, 8)
    cues = sent_cues(programs, stream, ["eng=cc1"])
    # What was whole when its line was: letters that follow half a second later begin a cue.
    expect_same_cues(cues, ffmpeg_cues(stream, READS_CC), early_ms=8 * FRAME_MS)


def test_four_channels(programs, folder):
    """Two share a field and take turns within a caption; each has its own language."""
    texts = {"eng": "One", "deu": "Zwei", "fra": "Trois", "spa": "Cuatro"}
    channels = list(zip(map(cea608.Channel, (1, 2, 3, 4)), texts.values()))
    schedule = cea608.Schedule()
    for channel, _ in channels:
        schedule.at(0.5, channel, channel.control(cea608.LOAD, cea608.CLEAR) + channel.row(15, 12))
    for channel, text in channels:
        schedule.at(1.5, channel, channel.control(cea608.LOAD) + channel.text(text))
    for channel, _ in channels:
        schedule.at(2.5, channel, channel.control(cea608.SHOW))
    for channel, _ in channels:
        schedule.at(4, channel, channel.control(cea608.ERASE))
    stream, first = make(folder, "h264", schedule, 5)
    cues = sent_cues(programs, stream,
                     [f"{language}=cc{number}" for number, language in enumerate(texts, 1)])
    expect_equal("texts", {(cue.language, cue.text) for cue in cues}, set(texts.items()))
    expect_equal("number of cues", len(cues), 4)
    for cue in cues:
        expect(abs(cue.start - first - 2500) <= 3 * FRAME_MS and
               abs(cue.end - first - 4000) <= 3 * FRAME_MS, f"{cue} of a stream from {first} on")


# Without what has a meaning in ffmpeg's subtitles or the receiver's output, < > { } \ and |, and the
# single quotes, the dash, the bullet and the upright, which ffmpeg has otherwise.
LETTERS = [chr(code) for code in range(0x21, 0x7F) if chr(code) not in "<>&"]
SPECIAL = [code for code in range(0x30, 0x40) if code != 0x39]  # which is no letter
EXTENDED = [(0x12, code) for code in range(0x20, 0x40) if code not in (0x26, 0x29, 0x2A, 0x2D)] + \
    [(0x13, code) for code in range(0x20, 0x40) if code not in (0x29, 0x2A, 0x2B, 0x2E, 0x37)]


def random_line(random, channel):
    """Letters of every kind, and what changes the pen between them."""
    pairs, room = [], 14
    while room > 0:
        kind = random.randrange(6)
        if kind == 0:
            pairs += channel.style(random.randrange(16))
        elif kind == 1:
            pairs += channel.code(0x11, random.choice(SPECIAL))
        elif kind == 2:  # behind the letter that stands in for it
            pairs += channel.text("x") + channel.code(*random.choice(EXTENDED))
        word = "".join(random.choices(LETTERS, k=random.randrange(1, 6)))
        pairs += channel.text(word + " ")
        room -= len(word) + 2
    return pairs + channel.text("z")  # behind a last code ffmpeg shows letters of an old caption


def random_rows(random, channel, most):
    pairs = []
    for row in sorted(random.sample(range(1, 16), random.randrange(1, most + 1))):
        pairs += channel.row(row, 4 * random.randrange(2))
        if random.randrange(2):
            pairs += channel.code(0x17, 0x20 | random.randrange(1, 4))
        pairs += random_line(random, channel)
    return pairs


def random_pop_on(random, channel):
    return (channel.control(cea608.LOAD, cea608.CLEAR) + random_rows(random, channel, 3) +
            channel.control(cea608.SHOW))


def random_paint_on(random, channel):
    """On an empty screen: ffmpeg cuts off a row that is written over."""
    return channel.control(cea608.ERASE, cea608.PAINT) + random_rows(random, channel, 2)


def random_roll_up(random, channel, depth):
    pairs = channel.control(depth)
    for _ in range(random.randrange(1, 4)):
        pairs += channel.control(cea608.NEXT_LINE) + random_line(random, channel)
    return pairs


def same_letters(cue):
    """Lines without the blanks at their ends, which ffmpeg makes an indentation."""
    text = cue.plain().replace("\\h", " ").replace("\u00A0", " ").replace("\uE800", "₺")
    return "\n".join(re.sub(" +", " ", line.strip()) for line in text.split("\n") if line.strip())


def expect_same_captions(what, stream, ours):
    """ffmpeg tells captions when they go."""
    for got, want in zip(joined(ours), ffmpeg_cues(stream, READS_CC), strict=True):
        expect_equal(what, same_letters(got), same_letters(want))
        expect(abs(got.start - want.start) <= FRAME_MS and abs(got.end - want.end) <= FRAME_MS,
               f"{what}: {got}\nis not when ffmpeg has\n{want}")


def expect_same_screens(what, stream, ours):
    """Letter by letter: ffmpeg can tell each screen when it comes, too."""
    screens = [cue for cue in ffmpeg_cues(stream, ["-real_time", "1", "-real_time_latency_msec", "0",
                                                   *READS_CC]) if cue.text]
    for screen, behind in zip(screens, screens[1:]):
        if behind.start - screen.start < 3.5 * FRAME_MS:
            continue  # an extended character may follow its stand-in
        shown = [cue for cue in ours if cue.start - FRAME_MS <= screen.start < cue.end - 1]
        expect(any(all(line in same_letters(cue) for line in same_letters(screen).split("\n"))
                   for cue in shown), f"{what}: {screen}\nis not in\n{shown}")
    for cue in ours:
        last = [screen for screen in screens if screen.start < cue.end - FRAME_MS / 2][-1]
        expect_equal(f"{what}, {cue}", same_letters(cue), same_letters(last))
    ends = [(cue.end, same_letters(cue)) for cue in joined(ours)]
    for cue in ffmpeg_cues(stream, READS_CC):
        expect(any(abs(cue.end - end) <= FRAME_MS and text == same_letters(cue)
                   for end, text in ends), f"{what}: {cue}\nends otherwise in\n{ends}")


def test_random(programs, folder, seeds=(0, 1, 3)):
    """Captions of each kind, of random letters, rows and codes, as ffmpeg reads them. It erases
    nothing where another kind begins or rows become fewer, so a stream has one kind."""
    kinds = [(random_pop_on, expect_same_captions), (random_paint_on, expect_same_screens)] + [
        (partial(random_roll_up, depth=depth), expect_same_screens)
        for depth in (cea608.ROLL_2, cea608.ROLL_3, cea608.ROLL_4)]
    plain = make_stream.ffmpeg_stream(folder / "plain.ts", 40, "h264")
    stream = folder / "captions.ts"
    for seed in seeds:
        random, channel = Random(seed), cea608.Channel(1)
        captions, expect_same = kinds[seed % len(kinds)]
        schedule = cea608.Schedule()
        for second in range(0, 36, 4):
            schedule.at(second, channel, captions(random, channel))
            if captions != random_pop_on and random.randrange(2):
                schedule.at(second + 3.5, channel, channel.control(cea608.ERASE))
        schedule.at(38, channel, channel.control(cea608.ERASE))
        stream.write_bytes(make_stream.with_captions(plain, "h264", schedule)[0])
        expect_same(f"seed {seed}", stream, sent_cues(programs, stream, ["eng=cc1"]))


def subtitle_pages():
    """Pages 888 and 889 in turn, and a page that nobody asked for between them."""
    page, boxed, filler = teletext.page, teletext.boxed, [teletext.filler(0x800)]
    news = page(0x100, [(1, "news that are no subtitles")])
    return (teletext.Schedule()
            .at(1, page(0x888, [(22, boxed("Guten Tag", 15))]) + filler)
            .at(2, page(0x889, [(22, boxed("Bonjour", 16, teletext.YELLOW))]) + filler)
            .at(3, news + page(0x888, [(20, boxed("zwei Zeilen,", 14, teletext.DOUBLE_HEIGHT)),
                                       (22, boxed("und Gr|~e", 15, teletext.CYAN))],
                               national=1) + filler)
            .at(6.5, page(0x888, []) + filler)
            .at(7, page(0x889, []) + filler)
            .at(7.5, page(0x888, [(2, boxed("oben links", 4))]) + filler)
            .at(9, page(0x888, []) + filler))


def test_teletext(programs, folder):
    pages = subtitle_pages()
    entry = teletext.map_entry([("deu", 2, 0x888), ("fra", 5, 0x889)])
    stream, first = make(folder, "h264", cea608.Schedule(), 11, streams=entry,
                         more_units=pages.units)
    cues = sent_cues(programs, stream, ["deu=teletext:888", "fra=teletext:889"])
    deu = joined([cue for cue in cues if cue.language == "deu"])
    fra = joined([cue for cue in cues if cue.language == "fra"])
    expect_equal("texts", [(cue.text, cue.settings) for cue in deu],
                 [("Guten Tag", ""), ("zwei Zeilen,\n<c.cyan>und Größe</c>", ""),
                  ("oben links", "line:16% position:18% align:start")])
    expect_equal("texts", [(cue.text, cue.settings) for cue in fra],
                 [("<c.yellow>Bonjour</c>", "")])
    times = [(round(cue.start - first), round(cue.end - first)) for cue in deu]
    expect_equal("times", times, [(1000, 3000), (3000, 6500), (7500, 9000)])
    expect_equal("times", [round(fra[0].start - first), round(fra[0].end - first)], [2000, 7000])

    for page, ours in (("888", deu), ("889", fra)):
        expect_same_cues(ours, ffmpeg_pages(stream, page), with_ends=False)


def ffmpeg_pages(stream, page):
    # Left alone, ffmpeg takes the time of the last PCR instead.
    return ffmpeg_cues(stream, ["-fix_teletext_pts", "0", "-txt_format", "text", "-txt_page", page,
                                "-i", stream.name, "-map", "0:s:0"])


def without_repeats(cues):
    """ffmpeg tells a page each time it is sent."""
    return [cue for before, cue in zip([None, *cues], cues)
            if not before or same_letters(before) != same_letters(cue)]


def random_page(random, number, national):
    """Up to three rows of letters in colours, some of double height, which take two rows."""
    rows = []
    for row in sorted(random.sample(range(1, 23, 2), random.randrange(4))):
        attributes = random.choice(["", teletext.RED, teletext.YELLOW, teletext.CYAN])
        if random.randrange(3) == 0:
            attributes += teletext.DOUBLE_HEIGHT
        text = "".join(random.choices(LETTERS, k=random.randrange(1, 20)))
        rows.append((row, teletext.boxed(text, random.randrange(4, 16), attributes)))
    controls = random.choice([(teletext.ERASE, teletext.SUBTITLE), (teletext.SUBTITLE,)])
    return teletext.page(number, rows, controls=controls, national=national)


def test_random_teletext(programs, folder, seeds=range(1)):
    """Two pages of random rows, with a third between them, as ffmpeg reads them."""
    for seed in seeds:
        random = Random(seed)
        pages, filler = teletext.Schedule(), [teletext.filler(0x800)]
        for tenth in range(10, 360, 5):
            number = random.choice([0x888, 0x889, 0x890])
            pages.at(tenth / 10, random_page(random, number, seed % 7) + filler)
        for number in (0x888, 0x889):
            pages.at(37, teletext.page(number, []) + filler)
        stream, _ = make(folder, "h264", cea608.Schedule(), 40, more_units=pages.units,
                         streams=teletext.map_entry([("deu", 2, 0x888), ("fra", 2, 0x889)]))
        cues = sent_cues(programs, stream, ["deu=teletext:888", "fra=teletext:889"])
        for page, language in (("888", "deu"), ("889", "fra")):
            ours = joined([cue for cue in cues if cue.language == language])
            theirs = without_repeats(ffmpeg_pages(stream, page))
            for got, want in zip(ours, theirs, strict=True):
                expect_equal(f"seed {seed}, page {page}", same_letters(got), same_letters(want))
                expect(abs(got.start - want.start) <= 1, f"seed {seed}: {got}\nis not\n{want}")


def test_clock_that_wraps(programs, folder):
    wrap_s = 2 ** 33 / 90000
    plain, first = make(folder, "h264", pop_on_schedule())
    want = sent_cues(programs, plain, ["eng=cc1"])
    wrapping, wrapping_first = make(folder, "h264", pop_on_schedule(), offset_s=wrap_s - 4)
    got = sent_cues(programs, wrapping, ["eng=cc1"])
    expect_equal("texts", [cue.text for cue in got], [cue.text for cue in want])
    expect(got[0].start > got[-1].start, "the clock does not wrap")
    for ours, theirs in zip(got, want):
        shift = (ours.start - wrapping_first) % (wrap_s * 1000) - (theirs.start - first)
        expect(abs(shift) < 2 and abs(ours.end - ours.start - theirs.end + theirs.start) <= 1,
               f"{ours}\n{theirs}")


def test_stream_is_left_as_it_is(programs, folder):
    """Also where it is no stream at all."""
    stream, _ = make(folder, "h264", cea608.Schedule(), 3)
    content = stream.read_bytes()
    save = folder / "save"
    save.write_text("#!/bin/sh\ncat > saved\n")
    save.chmod(0o755)
    for sent in (content, content[:188 * 40] + bytes(range(256)) * 1000 + content[188 * 40 + 5:],
                 b"", b"x"):
        for from_file in (True, False):
            (folder / "input").write_bytes(sent)
            with open(folder / "input", "rb") as file:
                given = {"stdin": file} if from_file else {"input": sent}
                done = subprocess.run([programs[0], "--captions", "eng=cc1", "--captions", "auto",
                                       str(save)], cwd=folder, **given, check=False,
                                      timeout=LONGEST_RUN_S)
            expect_equal("exit status", done.returncode, 0)
            expect((folder / "saved").read_bytes() == sent, "not what was sent")


def lose_packets(random, packets):
    return [packet for packet in packets if random.random() > 0.05]


def flip_bits(random, packets):
    for packet in packets:
        if random.random() < 0.1:
            packet[random.randrange(188)] ^= 1 << random.randrange(8)
    return packets


def cut_packets(random, packets):
    return [packet[:random.randrange(1, 188)] if random.random() < 0.04 else packet
            for packet in packets]


def overwrite(random, packets):
    for packet in packets:
        if random.random() < 0.1:
            for _ in range(10):
                packet[random.randrange(4, 188)] = random.randrange(256)
    return packets


def lose_seconds(_, packets):
    """Those from 8.5 to 12 s, with the codes that erase."""
    per_second = len(packets) / DAMAGED_S
    return packets[:round(8.5 * per_second)] + packets[round(12 * per_second):]


DAMAGED_S = 42

# The last captions that come, and how long a receiver keeps them when nothing more comes.
SHOWN_UNTIL_S = {"eng": 11.6 + 16, "spa": 3.2 + 16, "deu": 9 + 30}


def is_left_of(text, whole):
    """Whether the letters stand in `whole` in this order, with others between them or not."""
    letters = iter(whole)
    return all(letter in letters for letter in text)


def expect_sound_parts(what, damaged, sound, first):
    """Letters may be missing, and nothing else is shown; what is shown ends in time; and most
    captions are whole and begin when they should, or with the second of the two codes."""
    for cue in damaged:
        expect(cue.text and any(cue.language == other.language and
                                is_left_of(cue.plain(), other.plain()) for other in sound) and
               cue.start < cue.end <= first + 1000 * SHOWN_UNTIL_S[cue.language],
               f"{what}: {cue} of a stream from {first} on")
    whole = [other for other in sound
             if any((cue.language, cue.text) == (other.language, other.text) and
                    abs(cue.start - other.start) <= FRAME_MS + 1 for cue in damaged)]
    expect(len(whole) > len(sound) / 2, f"{what}: only these came whole:\n{whole}")
    expect(damaged != sound, f"{what}: no caption was damaged")


def test_damaged(programs, folder):
    """Damage does not reach the stream, nothing that is wrong is shown, and what is shown ends in
    time all the same."""
    stream, first = make(folder, "h264", pop_on_schedule(), DAMAGED_S,
                         streams=teletext.map_entry([("deu", 2, 0x888)]),
                         more_units=subtitle_pages().units)
    content = stream.read_bytes()
    save = folder / "save"
    save.write_text("#!/bin/sh\ncat > saved\n")
    save.chmod(0o755)
    damaged = folder / "damaged.ts"
    captions = ["eng=cc1", "spa=cc3", "deu=teletext:888"]
    sound = joined(sent_cues(programs, stream, captions))
    expect_equal("number of captions", len(sound), 7)
    for seed, damage in enumerate((lose_packets, flip_bits, cut_packets, overwrite, lose_seconds)):
        packets = [bytearray(content[at:at + 188]) for at in range(0, len(content), 188)]
        damaged.write_bytes(b"".join(damage(Random(seed), packets)))
        got = joined(sent_cues(programs, damaged, captions))
        expect_sound_parts(damage.__name__, got, sound, first)
        if damage is lose_seconds:
            lasted_s = {cue.language: round((cue.end - cue.start) / 1000) for cue in got}
            expect_equal("seconds of the last ones", lasted_s, {"eng": 16, "spa": 2, "deu": 30})
        with open(damaged, "rb") as file:
            done = subprocess.run([programs[0], "--captions", "eng=cc1", "--captions", "auto",
                                   str(save)], cwd=folder, stdin=file, check=False,
                                  stderr=subprocess.DEVNULL, timeout=LONGEST_RUN_S)
        expect_equal("exit status", done.returncode, 0)
        expect((folder / "saved").read_bytes() == damaged.read_bytes(), "not what was sent")


def digital_packet(number, blocks):
    """A caption channel packet of CEA-708 as pairs (cc_type, first, second)."""
    data = b"".join(bytes([service << 5 | len(block)]) + block for service, block in blocks)
    data += b"\0" * (1 - len(data) % 2)
    data = bytes([number % 4 << 6 | (len(data) + 1) // 2]) + data
    return [(3 if at == 0 else 2, data[at], data[at + 1]) for at in range(0, len(data), 2)]


class DigitalSchedule:
    def __init__(self, due):
        self.due = due  # seconds and a packet

    def pairs_of_picture(self, seconds):
        is_due = self.due and self.due[0][0] <= seconds + 0.001
        return self.due.pop(0)[1] if is_due else [(0, 0x80, 0x80)]


WINDOW = bytes([0x98, 0x18, 70, 105, 0x71, 31, 0x19])  # hidden, two rows, centred at the bottom
SHOW_WINDOW, DELETE_WINDOWS = b"\x89\1", b"\x8C\xFF"


def test_end_of_a_flood(programs, folder):
    """More cues than are sent at once all come before the stream ends."""
    texts = [str(number) for number in range(80)]
    due = [(0.5 + number / 20, digital_packet(number, [(1, DELETE_WINDOWS + WINDOW +
                                                        text.encode() + SHOW_WINDOW)]))
           for number, text in enumerate(texts)]
    due.append((4.6, digital_packet(len(texts), [(1, DELETE_WINDOWS)])))
    stream, _ = make(folder, "h264", DigitalSchedule(due), 5)
    expect_equal("texts", [cue.text for cue in sent_cues(programs, stream, ["eng=708:1"])], texts)


def test_digital(programs, folder):
    """Two services of CEA-708, found by what the tables announce."""
    window, show, delete = WINDOW, SHOW_WINDOW, DELETE_WINDOWS
    due = [(1.0, digital_packet(0, [(1, window + b"Hello" + show), (2, window + b"Hola" + show)])),
           (3.0, digital_packet(1, [(1, delete + window + b"twice\x0D" + b"\x90\5\x80now" + show)])),
           (4.0, digital_packet(2, [(1, delete)])),
           (5.0, digital_packet(3, [(2, delete)]))]

    services = b"\xC2eng\xC1\x3F\xFFspa\xC2\x3F\xFF"
    path = folder / "captions.ts"
    stream = make_stream.ffmpeg_stream(folder / "plain.ts", 7, "h264")
    stream, first = make_stream.with_captions(
        stream, "h264", DigitalSchedule(due), video_descriptors=transport.descriptor(0x86, services))
    path.write_bytes(stream)
    cues = sent_cues(programs, path, ["auto"],
                     messages="the stream announces 708:1; its language becomes 'eng'\n"
                              "the stream announces 708:2; its language becomes 'spa'\n")
    expect_equal("cues", [(cue.language, cue.text, cue.settings) for cue in joined(cues)],
                 [("eng", "Hello", ""), ("eng", "twice\n<i>now</i>", ""), ("spa", "Hola", "")])
    for cue, start, end in zip(joined(cues), (1, 3, 1), (3, 4, 5)):
        expect(abs(cue.start - first / 90 - start * 1000) <= FRAME_MS and
               abs(cue.end - first / 90 - end * 1000) <= FRAME_MS, f"{cue}, not {start} to {end}")


TESTS = {
    "damaged": test_damaged,
    "digital": test_digital,
    "end_of_a_flood": test_end_of_a_flood,
    "four_channels": test_four_channels,
    "pop_on_h264": lambda p, f: test_pop_on(p, f, "h264"),
    "pop_on_mpeg2": lambda p, f: test_pop_on(p, f, "mpeg2"),
    "random": test_random,
    "random_teletext": test_random_teletext,
    "roll_up": lambda p, f: test_roll_up(p, f, "h264"),
    "teletext": test_teletext,
    "clock_that_wraps": test_clock_that_wraps,
    "stream_is_left_as_it_is": test_stream_is_left_as_it_is,
}


def main():
    programs = [str(Path(word).resolve()) for word in sys.argv[1:3]]
    with tempfile.TemporaryDirectory() as folder:
        TESTS[sys.argv[3]](programs, Path(folder))


if __name__ == "__main__":
    main()
