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
from expected_output import ModelRun
from ffprobe import programme_of
from option_matrix import DEFAULT, KEEP_ALL, runs_of
from playback import Player, expect_live_master_is_known
from recipes import RECIPES, stream_of
from traits import expect_traits

LONGEST_RUN_S = 120


def run(program, directory, path, arguments):
    """What the program said."""
    with open(path, "rb") as stream:
        done = subprocess.run([program, *arguments], cwd=directory, stdin=stream,
                              capture_output=True, timeout=LONGEST_RUN_S, check=False)
    stderr = done.stderr.decode()
    expect(done.returncode == 0, f"exit status {done.returncode}, standard error ends:\n"
           + stderr[-3000:])
    expect_equal("standard output", done.stdout, b"")
    return stderr


def expect_output(directory, stderr, want):
    expect_equal("standard error", stderr, want.messages)
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

    for arguments in runs_of(name):
        print(f"with {' '.join(arguments) or 'default options'}", end="", flush=True)
        want = ModelRun(arguments, stream)
        want.expect_confirmed(programme)
        with tempfile.TemporaryDirectory() as scratch:
            directory = Path(scratch)
            stderr = run(program, directory, path, arguments)
            expect_output(directory, stderr, want)
            if arguments == KEEP_ALL:
                kept = b"".join(want.files[name] for name in sorted(want.files)
                                if name.endswith(".ts"))
                expect(kept and stream.endswith(kept),
                       "the fragments joined are not the stream's end")
            if play and arguments == DEFAULT:
                expect_live_master_is_known(directory, path)
            if play and arguments != KEEP_ALL:
                player.expect_plays(directory, want.renditions())
                if want.options.start_pat_pmt:
                    player.expect_fragments_play_alone(directory, want.renditions())
        print(f": {len(want.cut_at)} cuts, {stderr.count('Deleting')} deleted")


try:
    main()
except Mismatch as mismatch:
    sys.exit(f"\nFAILED: {mismatch}")
