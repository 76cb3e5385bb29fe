"""Runs the program on a stream that ffmpeg made, and compares all that it leaves behind.

usage: stream_test.py PROGRAM CACHE-FOLDER STREAM-NAME [--play]

--play: also let ffprobe and ffmpeg read the playlists, which takes some seconds of waiting for the
end of a live playlist.
"""

import difflib
import json
import re
import subprocess
import sys
import tempfile
from collections import Counter
from pathlib import Path

from annexb import start_codes
from expected_output import expected_output
from ffprobe import programme_of
from recipes import RECIPES, stream_of
from transport_stream import elementary_stream

SLICE, IDR_SLICE, PARAMETER_SETS = 1, 5, (7, 8)
DEFAULT_FRAG_DURATION = 4
DEFAULT_BACKLOG = 10
KEEP_ALL = 1000
LONGEST_RUN_S = 120


class Mismatch(Exception):
    pass


def expect(condition, message):
    if not condition:
        raise Mismatch(message)


def expect_equal(what, got, want):
    if got == want:
        return
    if isinstance(want, str):
        lines = difflib.unified_diff(want.splitlines(), got.splitlines(), "want", "got",
                                     lineterm="", n=2)
        raise Mismatch(f"{what}:\n" + "\n".join(list(lines)[:60]))
    raise Mismatch(f"{what}:\nwant {want!r}\ngot  {got!r}")


def expect_traits(name, stream, programme):
    """The stream is what its name says; a test on something else would prove nothing."""
    codes = start_codes(elementary_stream(stream, programme.video_pid))
    lengths = Counter(length for length, _ in codes)
    kinds = Counter(kind for _, kind in codes)
    print(f"{name}: {len(stream)} bytes, {len(programme.pictures)} pictures, "
          f"{kinds[SLICE] + kinds[IDR_SLICE]} slices ({kinds[IDR_SLICE]} IDR), start codes of "
          f"3 bytes {lengths[3]}, of 4 bytes {lengths[4]}, first PTS {programme.pictures[0].pts}")

    slice_types = {picture.slice_type for picture in programme.pictures}
    seconds = (programme.pictures[-1].pts - programme.pictures[0].pts) / 90000
    traits = {
        "long": seconds > 590,
        "cropped_1080p": programme.video["height"] % 16 != 0,
        "b_frames": "B" in slice_types,
        "open_gop": kinds[IDR_SLICE] == 1 and sum(p.intra for p in programme.pictures) > 20,
        "slices": kinds[SLICE] + kinds[IDR_SLICE] == 4 * len(programme.pictures),
        "interlaced": programme.video["field_order"] == "tt",
        "mp4_to_annexb": lengths[3] > 0 and lengths[4] > 0,
        "start_codes_of_3_bytes": lengths[4] == 0,
        "start_codes_of_4_bytes": lengths[3] == 0,
        "late_clock": programme.pictures[0].pts > 600 * 90000,
        "constant_rate": b"\x47\x1f\xff\x10" in stream,
    }
    expect(traits[name], f"the stream {name} is not what its name says")


def run(program, directory, stream, options=()):
    """Pipes the stream in, and returns what the program said."""
    done = subprocess.run([program, *options], cwd=directory, input=stream, capture_output=True,
                          timeout=LONGEST_RUN_S, check=False)
    stderr = done.stderr.decode()
    expect(done.returncode == 0, f"exit status {done.returncode}, standard error ends:\n"
           + stderr[-3000:])
    expect_equal("standard output", done.stdout, b"")
    return stderr


def expect_output(directory, stderr, want):
    expect_equal("standard error", stderr, "".join(line + "\n" for line in want.messages))
    expect_equal("files", sorted(p.name for p in directory.iterdir()), sorted(want.files))
    for name, content in want.files.items():
        got = (directory / name).read_bytes()
        if name.endswith(".ts"):
            expect(got == content, f"{name}: {len(got)} bytes, want {len(content)}, or others")
        else:
            expect_equal(name, got.decode(), content.decode())


def player(program, *arguments, directory):
    """Runs ffmpeg or ffprobe on a playlist from its first fragment on; it must have nothing to
    complain about."""
    # The playlist has no end: it is given up when two reloads bring nothing new.
    as_live = ["-v", "error", "-live_start_index", "0", "-m3u8_hold_counters", "2"]
    done = subprocess.run([program, *as_live, *arguments], cwd=directory,
                          stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=LONGEST_RUN_S, check=False)
    expect_equal(f"{program}'s messages", done.stderr, "")
    expect_equal(f"{program}'s exit status", done.returncode, 0)
    return done.stdout


def expect_plays(directory, programme, pictures):
    """Players read both playlists, and lose no picture of those listed."""
    size = [programme.video["width"], programme.video["height"]]
    for playlist in ("ch1.m3u8", "ch1.m3u8.av.m3u8"):
        about = player("ffprobe", "-of", "json", "-show_streams", playlist, directory=directory)
        streams = {stream["codec_name"]: stream for stream in json.loads(about)["streams"]}
        expect_equal(f"codecs in {playlist}", sorted(streams), ["aac", "h264"])
        expect_equal(f"picture size in {playlist}",
                     [streams["h264"]["width"], streams["h264"]["height"]], size)

    progress = player("ffmpeg", "-i", "ch1.m3u8.av.m3u8", "-map", "0:v", "-map", "0:a",
                      "-fps_mode", "passthrough", "-f", "null", "-progress", "pipe:1", "-",
                      directory=directory)
    decoded = re.findall(r"^frame=(\d+)$", progress, re.MULTILINE)[-1]
    expect_equal("pictures that ffmpeg decoded", int(decoded), pictures)


def pictures_listed(want, programme):
    ranges = {name: (first, end) for name, first, end in want.fragments}
    listed = [ranges[entry.name] for entry in want.main.listed() if entry.name]
    return sum(listed[0][0] <= picture.position < listed[-1][1]
               for picture in programme.pictures)


def main():
    program, cache, name = Path(sys.argv[1]).resolve(), sys.argv[2], sys.argv[3]
    play = sys.argv[4:] == ["--play"]
    path = stream_of(name, cache)
    stream, programme = path.read_bytes(), programme_of(path)
    expect_traits(name, stream, programme)

    with tempfile.TemporaryDirectory() as scratch:
        directory = Path(scratch)
        want = expected_output(stream, programme, DEFAULT_FRAG_DURATION, DEFAULT_BACKLOG)
        stderr = run(program, directory, stream)
        expect_output(directory, stderr, want)
        if play and RECIPES[name].joins_cleanly:
            expect_plays(directory, programme, pictures_listed(want, programme))
        print(f"default options: {len(want.fragments)} fragments, "
              f"{stderr.count('Deleting')} deleted")

    with tempfile.TemporaryDirectory() as scratch:
        directory = Path(scratch)
        want = expected_output(stream, programme, DEFAULT_FRAG_DURATION, KEEP_ALL)
        expect_output(directory,
                      run(program, directory, stream, ["--frag-backlog", str(KEEP_ALL)]), want)
        kept = b"".join((directory / fragment).read_bytes()
                        for fragment, _, _ in want.fragments)
        first_cut = want.fragments[0][1]
        expect(kept == stream[first_cut:], "the fragments joined are not the stream from its cut on")
        print(f"all kept: {len(kept)} bytes from byte {first_cut} on")


try:
    main()
except Mismatch as mismatch:
    sys.exit(f"FAILED: {mismatch}")
