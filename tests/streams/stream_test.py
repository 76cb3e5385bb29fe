"""Runs the program on a stream that ffmpeg made, with each set of options that matters for it, and
compares all that it leaves behind.

usage: stream_test.py PROGRAM CACHE-FOLDER STREAM-NAME [--play]

--play: also decode what was written.
"""

import subprocess
import sys
import tempfile
from pathlib import Path

from expect import Mismatch, expect, expect_equal
from expected_output import expected_output
from ffprobe import programme_of
from option_matrix import DEFAULT, KEEP_ALL, runs_of
from playback import Player, expect_live_master_is_known
from recipes import RECIPES, stream_of
from traits import expect_traits

LONGEST_RUN_S = 120


def run(program, directory, stream, options):
    """Pipes the stream in, and returns what the program said."""
    done = subprocess.run([program, *options.arguments()], cwd=directory, input=stream,
                          capture_output=True, timeout=LONGEST_RUN_S, check=False)
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


def main():
    program, cache, name = Path(sys.argv[1]).resolve(), sys.argv[2], sys.argv[3]
    play = sys.argv[4:] == ["--play"] and RECIPES[name].joins_cleanly
    path = stream_of(name, cache)
    stream, programme = path.read_bytes(), programme_of(path)
    expect_traits(name, stream, programme)
    player = Player(stream, programme)

    for options in runs_of(name):
        print(f"with {' '.join(options.arguments()) or 'default options'}", end="", flush=True)
        want = expected_output(stream, programme, options)
        with tempfile.TemporaryDirectory() as scratch:
            directory = Path(scratch)
            stderr = run(program, directory, stream, options)
            expect_output(directory, stderr, want)
            if options == KEEP_ALL:
                kept = b"".join((directory / fragment.name).read_bytes()
                                for fragment in want.renditions[0].fragments)
                expect(stream.endswith(kept), "the fragments joined are not the stream's end")
            if play and options == DEFAULT:
                expect_live_master_is_known(directory, path)
            if play and options != KEEP_ALL:
                player.expect_plays(directory, want)
                if options.in_force()[0].start_pat_pmt:
                    player.expect_fragments_play_alone(directory, want)
        made = [len(rendition.fragments) for rendition in want.renditions]
        print(f": fragments {made}, {stderr.count('Deleting')} deleted")


try:
    main()
except Mismatch as mismatch:
    sys.exit(f"\nFAILED: {mismatch}")
