"""Runs the program on random cases and compares all that it leaves behind with the model.

A difference is printed with its seed and command line; --keep FOLDER then leaves the case there.
Needs nothing but Python's standard library.
"""

import argparse
import fcntl
import os
import shlex
import shutil
import socket
import subprocess
import sys
import tempfile
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass
from functools import partial
from pathlib import Path
from threading import Thread

from control_socket import wire_bytes
from generator.case import random_case
from generator.earlier_files import FOLDER, LINK
from outcome import differences, outcome_of_model, outcome_of_program
from reading.directory import Directory
from reading.run import Run

LINK_TARGET = "nowhere"
# As scripts/test tells the sanitizers to end the program.
SANITIZER_STATUS = 99
# Of this many seeds, at least half must get as far as a fragment: refusals alone show little.
ENOUGH_TO_JUDGE = 20
# In the model any number stands for the socket; the program gets the one of the descriptor.
MODEL_SOCKET = 3
# Holds many pieces, so that the program is not kept waiting.
LARGE_PIPE = 1 << 20


@dataclass
class Result:
    seed: int
    arguments: list
    lines: list  # the differences
    wrote_fragments: bool = False


def arguments_with_socket(arguments, number):
    """In front, where no bad argument of the case's own keeps it from being read."""
    return ["--anon-sock", str(number), *arguments]


def run_model(case):
    directory = Directory()
    for name, content in case.earlier_files.items():
        name = os.fsencode(name)
        if content == FOLDER:
            directory.folders.add(name)
        elif content == LINK:
            directory.links[name] = os.fsencode(LINK_TARGET)
        else:
            directory.files[name] = bytearray(content)
    arguments = case.arguments
    if case.socket:
        arguments = arguments_with_socket(arguments, MODEL_SOCKET)
    run = Run([os.fsencode(a) for a in arguments], case.stream, directory, case.socket, case.piece)
    return outcome_of_model(run.run())


def run_program(program, case, scratch, timeout):
    folder = scratch / "run"
    _lay_out(case.earlier_files, folder)
    arguments, pass_fds, ends = case.arguments, (), []
    if case.socket:
        ends = _filled_socket(case.socket)
        arguments = arguments_with_socket(arguments, ends[0].fileno())
        pass_fds = (ends[0].fileno(),)
    try:
        with standard_input_of(case, scratch) as standard_input:
            running = subprocess.Popen(
                [program, *arguments], stdin=standard_input, stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE, cwd=folder, pass_fds=pass_fds)
        with running:
            try:
                _, stderr = running.communicate(timeout=timeout)
            except subprocess.TimeoutExpired:
                running.kill()
                raise
    finally:
        for end in ends:
            end.close()
    return outcome_of_program(running.returncode, stderr, folder)


def standard_input_of(case, scratch):
    """A file, or a pipe that delivers one piece at a time, however fast it is filled."""
    if not case.piece:
        stream = scratch / "input.ts"
        stream.write_bytes(case.stream)
        return open(stream, "rb")
    read_end, write_end = os.pipe2(os.O_CLOEXEC | os.O_DIRECT)
    fcntl.fcntl(write_end, fcntl.F_SETPIPE_SZ, LARGE_PIPE)
    Thread(target=_feed, args=(write_end, case.stream, case.piece)).start()
    return open(read_end, "rb")


def _feed(pipe, stream, piece):
    try:
        for at in range(0, len(stream), piece):
            os.write(pipe, stream[at:at + piece])
    except BrokenPipeError:
        pass  # the program has ended
    finally:
        os.close(pipe)


def _lay_out(earlier_files, folder):
    folder.mkdir()
    for name, content in sorted(earlier_files.items()):
        if content == FOLDER:
            (folder / name).mkdir(exist_ok=True)
        elif content == LINK:
            (folder / name).symlink_to(LINK_TARGET)
        else:
            (folder / name).write_bytes(content)


def _filled_socket(control_socket):
    """The program's end first. Everything is sent beforehand, so that the passes in which the
    captions are taken in do not depend on time; it must fit into the kernel's buffer."""
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
    ours.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 22)
    ours.settimeout(5)
    ours.sendall(b"".join(wire_bytes(packet) for packet in control_socket.packets))
    if control_socket.hangs_up:
        ours.close()
    return [theirs, ours]


def compare_seed(program, with_captions, timeout, keep, seed):
    case = random_case(seed, with_captions)
    with tempfile.TemporaryDirectory(prefix=f"seed_{seed}_") as scratch:
        try:
            of_program = run_program(program, case, Path(scratch), timeout)
        except subprocess.TimeoutExpired:
            return Result(seed, case.arguments, [f"the program still ran after {timeout} s"])
    of_model = run_model(case)
    lines = differences(of_model, of_program)
    if of_program.status == SANITIZER_STATUS:
        lines.append("a sanitizer spoke:\n" + of_program.stderr.decode("utf-8", "replace"))
    if lines and keep:
        kept = Path(keep) / f"seed_{seed}"
        shutil.rmtree(kept, ignore_errors=True)
        for name, outcome in (("model", of_model), ("program", of_program)):
            outcome.save(kept / name)
        (kept / "input.ts").write_bytes(case.stream)
    wrote_fragments = any(name.endswith(b".ts") and name not in map(os.fsencode, case.earlier_files)
                          for name in of_program.files)
    return Result(seed, case.arguments, lines, wrote_fragments)


def seed_range(text):
    first, _, last = text.partition("-")
    return range(int(first), int(last or first) + 1)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program")
    parser.add_argument("--seeds", type=seed_range, required=True, help="one, or first-last")
    parser.add_argument("--captions", action="store_true", help="with a control socket")
    parser.add_argument("--jobs", type=int, default=1, help="seeds at a time")
    parser.add_argument("--timeout", type=float, default=120, help="seconds for a run")
    parser.add_argument("--keep", metavar="FOLDER", help="where differing cases are left")
    options = parser.parse_args()
    program = os.path.abspath(options.program)

    compare = partial(compare_seed, program, options.captions, options.timeout, options.keep)
    differing = wrote_fragments = 0
    with ProcessPoolExecutor(options.jobs) as pool:
        for result in pool.map(compare, options.seeds):
            wrote_fragments += result.wrote_fragments
            if not result.lines:
                continue
            differing += 1
            captions = " --captions" if options.captions else ""
            print(f"seed {result.seed}: {shlex.join(result.arguments)}")
            print("\n".join("    " + line for line in result.lines))
            print(f"    again: {sys.executable} {os.path.abspath(__file__)} {program}"
                  f"{captions} --seeds {result.seed} --keep FOLDER", flush=True)
    seeds = len(options.seeds)
    print(f"{seeds} seeds, {differing} differ, {wrote_fragments} wrote fragments")
    too_few = seeds >= ENOUGH_TO_JUDGE and wrote_fragments < seeds / 2
    return 1 if differing or too_few else 0


if __name__ == "__main__":
    sys.exit(main())
