"""What a run leaves behind, of the program or of the model, and how two of them differ."""

import difflib
import os
import re
import signal
from dataclasses import dataclass

from reading.run import ABORTED

MOST_NAMES_SHOWN = 8
MOST_FILES_SHOWN = 4
MOST_LINES_SHOWN = 14
PACKET_BYTES = 188


@dataclass
class Outcome:
    status: int | str
    stderr: bytes
    files: dict  # contents by name, both bytes; a link is its target

    def save(self, folder):
        """As files below a folder, for people to look at."""
        for name, content in self.files.items():
            path = folder / "files" / os.fsdecode(name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(content)
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "stderr").write_bytes(self.stderr)


def outcome_of_model(run):
    files = {name: bytes(content) for name, content in run.directory.files.items()}
    links = {name: b"link to " + target for name, target in run.directory.links.items()}
    return Outcome(run.status, comparable(bytes(run.stderr)), files | links)


def outcome_of_program(status, stderr, folder):
    return Outcome(ABORTED if status == -signal.SIGABRT else status, comparable(stderr),
                   _files_under(os.fsencode(folder)))


def comparable(stderr):
    """Lines without what the model cannot know: the order in which a folder is read, the version
    in the usage text, and where in the source an assertion stands."""
    lines, removals = [], []
    for line in stderr.split(b"\n"):
        if line.startswith(b"Removing old: ") and b": scanning directory " not in line:
            removals.append(line)
            continue
        lines += sorted(removals)
        removals = []
        if line.startswith(b"MPEG-TS to HLS conversion utility."):
            line = b"MPEG-TS to HLS conversion utility."
        lines.append(re.sub(rb"^[^:]*: [^:]*vorn_mpegts_to_hls\.cpp:\d+: ", b"", line))
    return b"\n".join(lines + sorted(removals))


def differences(model, program):
    """Lines that tell how; none if the two are the same."""
    lines = []
    if model.status != program.status:
        lines.append(f"status: model {model.status}, program {program.status}")
    lines += _text_differences("stderr", model.stderr, program.stderr)
    missing = sorted(model.files.keys() - program.files.keys())
    unexpected = sorted(program.files.keys() - model.files.keys())
    for what, names in (("missing", missing), ("unexpected", unexpected)):
        lines += [f"{what}: {name.decode()}" for name in names[:MOST_NAMES_SHOWN]]
    differing = [name for name in sorted(model.files.keys() & program.files.keys())
                 if model.files[name] != program.files[name]]
    for name in differing[:MOST_FILES_SHOWN]:
        lines += _file_differences(name.decode(), model.files[name], program.files[name])
    if len(differing) > MOST_FILES_SHOWN:
        lines.append(f"and {len(differing) - MOST_FILES_SHOWN} more files")
    return lines


def _files_under(root):
    files = {}
    for folder, folders, names in os.walk(root):
        for name in names + folders:
            path = os.path.join(folder, name)
            relative = os.path.relpath(path, root)
            if os.path.islink(path):
                files[relative] = b"link to " + os.readlink(path)
            elif name in names:
                with open(path, "rb") as file:
                    files[relative] = file.read()
    return files


def _file_differences(name, model, program):
    if model.startswith((b"#EXTM3U", b"WEBVTT")):
        return _text_differences(name, model, program)
    at = len(os.path.commonprefix([model, program]))
    return [f"{name}: model {len(model)} bytes, program {len(program)} bytes, first difference at "
            f"{at} (byte {at % PACKET_BYTES} of packet {at // PACKET_BYTES})"]


def _text_differences(name, model, program):
    lines = list(difflib.unified_diff(
        model.decode("utf-8", "replace").splitlines(),
        program.decode("utf-8", "replace").splitlines(),
        f"{name} of the model", f"{name} of the program", lineterm="", n=1))
    return lines[:MOST_LINES_SHOWN]
