"""Runs the program on each stream that ffmpeg made, alone and behind vorn_ts_prepare, and compares the
packets of video, audio and data that the fragments hold.

usage: prepare_test.py PROGRAM PREPARE CACHE-FOLDER

Alone, the program reads the file; behind the other, both a pipe that gets it at once and the file.
The fragments begin no later with it than without, and from there on hold the same packets.
"""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

from expect import Mismatch, expect
from recipes import RECIPES, stream_of

PACKET_BYTES = 188
NULL_PID = 0x1FFF
LONGEST_RUN_S = 120
OPTIONS = ["--frag-backlog", "1000", "--no-padding"]


def media_of(directory, pmt_pid):
    """All packets of the fragments but tables and padding."""
    kept = []
    for path in sorted(directory.glob("ch1.*.ts")):
        fragment = path.read_bytes()
        for at in range(0, len(fragment), PACKET_BYTES):
            pid = (fragment[at + 1] & 0x1F) << 8 | fragment[at + 2]
            if pid not in (0, pmt_pid, NULL_PID):
                kept.append(fragment[at:at + PACKET_BYTES])
    return kept


def run(command, path):
    with tempfile.TemporaryDirectory() as scratch, path.open("rb") as stream:
        done = subprocess.run(["bash", "-o", "pipefail", "-c", command], cwd=scratch, stdin=stream,
                              capture_output=True, text=True, timeout=LONGEST_RUN_S, check=False)
        expect(done.returncode == 0, f"{command}: status {done.returncode}\n{done.stderr[-2000:]}")
        pmt_pid = int(re.search(r"Chose PMT=([0-9a-f]+)h", done.stderr)[1], 16)
        return media_of(Path(scratch), pmt_pid), done.stderr


def compare(name, path, program, prepare):
    program = " ".join([program, *OPTIONS])
    alone, _ = run(program, path)
    expect(alone, f"{name}: the program alone writes nothing")
    for command in (f"cat | {prepare} | {program}", f"{prepare} | {program}"):
        behind, said = run(command, path)
        expect("vorn_ts_prepare" not in said, f"{name}: {said[-1000:]}")
        expect(len(behind) >= len(alone), f"{name}: {len(behind)} packets, {len(alone)} alone")
        expect(behind[len(behind) - len(alone):] == alone, f"{name}: other packets than alone")
        print(f"{name}: {len(alone)} packets, {len(behind) - len(alone)} more before them")


def main():
    program, prepare = (str(Path(word).resolve()) for word in sys.argv[1:3])
    for name in RECIPES:
        compare(name, stream_of(name, sys.argv[3]), program, prepare)


try:
    main()
except Mismatch as mismatch:
    sys.exit(f"\nFAILED: {mismatch}")
