"""Runs the commands of README.md, of pages in docs/ and of manual pages as they stand, and holds
those of CONTRIBUTING.md against the presets and the tests that there are.

usage: commands.py PROJECT-ROOT BUILD-FOLDER

A block of commands, fenced as ```sh or an example of the manual page, is given to a shell, which
stops at the first that fails. The programs are those that the release build installs; `your-source`
is a test stream, and so is what comes from the network. What is not run is listed below with the
reason.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from contextlib import contextmanager
from pathlib import Path

NOT_RUN = {
    "scripts/demo": "the test checks.demo runs it",
    "scripts/test": "it runs this test",
}

# Comes once, at once; or, when there are $AWAITED, again and again until these files exist, and
# thrice as fast as it plays, since the captions of a file keep time.
YOUR_SOURCE = """#!/bin/sh
[ -n "$AWAITED" ] || exec cat "$SCRATCH/stream.ts"
ffmpeg -nostdin -loglevel error -readrate 3 -stream_loop -1 -i "$SCRATCH/stream.ts" -c copy \\
    -f mpegts pipe:1 &
while kill -0 $! 2> "$SCRATCH/none" && ! ls $AWAITED > "$SCRATCH/found" 2>&1; do
    sleep 0.1
done
kill $!
"""

# What comes over the network has two programmes.
SOCAT = """#!/bin/sh
exec cat "$SCRATCH/programmes.ts"
"""

# No systemd runs here. Enabling is done on the files below the installed root.
SYSTEMCTL = """#!/bin/sh
for word do
    shift
    [ "$word" = --now ] || set -- "$@" "$word"
done
exec /usr/bin/systemctl --root="$SCRATCH" "$@"
"""

CAPTIONS = "WEBVTT\n\n00:02.000 --> 00:04.000\nHello\n"


def blocks(document):
    """The blocks of commands, without comments and with continued lines joined."""
    text = document.read_text()
    form = r"^```sh\n(.*?)^```$"
    if document.suffix != ".md":
        text = text[text.index("\n.Sh EXAMPLES\n"):text.index("\n.Sh DIAGNOSTICS\n")]
        text = text.replace(r"\e", "\\")
        form = r"^\.Bd .*?\n(.*?)^\.Ed$"
    for block in re.findall(form, text, re.MULTILINE | re.DOTALL):
        lines = re.sub(r" +", " ", re.sub(r"\\\n|(?<=\|)\n", "", block)).splitlines()
        yield [line for line in (re.sub(r"\s+#.*", "", line) for line in lines) if line]


class Scratch:
    """A folder that stands in for the root of a machine on which the release is installed."""

    def __init__(self, root, path):
        self.root = root
        self.path = path
        self.channel = path / "tmp/channel"
        for folder in ("bin", "tmp", "run/vorn-hls"):
            (path / folder).mkdir(parents=True)
        for name, text in (("your-source", YOUR_SOURCE), ("systemctl", SYSTEMCTL),
                           ("socat", SOCAT)):
            (path / "bin" / name).write_text(text)
            (path / "bin" / name).chmod(0o755)
        for component in ("program", "publisher"):
            install = ["cmake", "--install", root / "build/release", "--component", component]
            subprocess.run(install, env={**os.environ, "DESTDIR": str(path)}, check=True,
                           stdout=subprocess.DEVNULL)
        subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "lavfi", "-i",
                        "testsrc2=size=640x360:rate=25", "-t", "12", "-c:v", "mpeg2video", "-b:v",
                        "6M", "-g", "25", "-f", "mpegts", path / "stream.ts"], check=True)
        subprocess.run(["ffmpeg", "-loglevel", "error", "-i", path / "stream.ts", "-map", "0", "-map",
                        "0", "-c", "copy", "-program", "program_num=1:st=0", "-program",
                        "program_num=2:st=1", path / "programmes.ts"], check=True)
        (path / "film.mp4").symlink_to(path / "stream.ts")
        self.prefix = next(path.rglob("bin/vorn_mpegts_to_hls")).parent.parent

    def start(self, lines, where, awaited=(), **how):
        text = " &&\n".join(lines).replace("& &&\n", "&\n")
        places = {"/path/to/film.mp4": f"{self.path}/film.mp4", "/path/to/": f"{self.root}/", 
                  "/usr/libexec/": f"{self.prefix}/libexec/", "/tmp/": f"{self.path}/tmp/", "/run/": f"{self.path}/run/"}
        text = re.sub(rf"(?<![\w/])({'|'.join(places)})", lambda found: places[found[1]], text)
        path = f"{self.path}/bin:{self.prefix}/bin:{os.environ['PATH']}"
        environment = {**os.environ, "PATH": path, "SCRATCH": str(self.path),
                       "AWAITED": " ".join(str(where / name) for name in awaited)}
        return subprocess.Popen(["bash", "-euo", "pipefail", "-c", text], cwd=where, text=True,
                                env=environment, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                **how)

    def run(self, lines, where, awaited=()):
        process = self.start(lines, where, awaited)
        said = process.communicate()[1].splitlines()
        if process.returncode == 0:
            return []
        return [f"status {process.returncode} of:", *lines,
                *(line for line in said if "FIX THIS BUG" not in line)]

    @contextmanager
    def caption_writer(self):
        """Writes captions into the FIFO that the commands read them from."""
        fifo = self.path / "run/eng.fifo"
        os.mkfifo(fifo)
        writer = subprocess.Popen(["sh", "-c", 'printf %s "$1" > "$2"', "sh", CAPTIONS, fifo])
        try:
            yield
        finally:
            writer.kill()
            writer.wait()
            fifo.unlink()


def first_run(scratch, lines, document):
    """Afterwards there is what README.md says under "What appears in the directory"."""
    faults = scratch.run(lines, scratch.root)
    section = document.read_text().split("## What appears in the directory")[1].split("\n## ")[0]
    names = [name for row in re.findall(r"^\| (`.*?) \|", section, re.MULTILINE)
             for name in re.findall(r"`([^`]+)`", row)]
    return faults + [f"the first run makes no {name}" for name in names
                     if not (scratch.channel / name).is_file()] + ([] if names else ["no names"])


def as_service(scratch, lines, document):
    """The unit that is enabled is the one that was installed."""
    del document
    faults = scratch.run(lines, scratch.path)
    wanted = scratch.path / "etc/systemd/system/multi-user.target.wants"
    enabled = wanted / (lines[-1].split()[-1] + ".service")
    return faults if enabled.is_symlink() else [*faults, f"{enabled.name} was not enabled"]


def alive(scratch, lines, document):
    """The channel of the first run, as it was when that ended."""
    del document
    folder = scratch.path / "run/vorn-hls/ch1"
    shutil.copytree(scratch.channel, folder)
    for playlist in folder.glob("*.m3u8"):
        playlist.touch()
    return scratch.run(lines, scratch.path)


def old_files(scratch, lines, document):
    """What is older goes, what a playlist may list stays."""
    del document
    folder = scratch.path / "run/vorn-hls/ch1"
    old, new = folder / "ch1.00000000.ts", folder / "ch1.00000001.ts"
    os.utime(old, (0, 0))
    faults = scratch.run(lines, scratch.path)
    return faults if new.exists() and not old.exists() else [*faults, "removes the wrong files"]


def prints_a_time(scratch, lines, document):
    """In ticks of 90 kHz, and nothing else."""
    del document
    process = scratch.start(["cp stream.ts programme.ts", *lines], scratch.path,
                            stdout=subprocess.PIPE)
    printed, said = process.communicate()
    return [] if re.fullmatch(r"[1-9]\d*\n", printed) else [f"not a time: {printed}{said}", *lines]


def example_folder(scratch):
    shutil.rmtree(scratch.path / "run/ch1", ignore_errors=True)
    folder = Path(tempfile.mkdtemp(dir=scratch.path / "tmp"))
    stream = (scratch.path / "stream.ts").read_bytes()
    (folder / "programme.ts").write_bytes(stream)
    (folder / "captions.vtt").write_text(CAPTIONS)
    (folder / "input.mp4").write_bytes(stream[:4000000])  # read in real time
    return folder


def example(scratch, lines, document):
    """Afterwards a playlist lists a fragment, under the URL that the command gives."""
    del document
    where = example_folder(scratch)
    faults = scratch.run(lines, where)
    url = re.search(r"--base-url (\S+)|$", " ".join(lines))[1] or ""
    listed = re.compile(r"^#EXTINF:.*\n" + re.escape(url) + r"ch1\.", re.MULTILINE)
    folders = [where, scratch.path / "run/ch1"]
    playlists = [path for folder in folders for path in folder.glob("*.m3u8")]
    if not any(listed.search(path.read_text()) for path in playlists):
        faults.append("no playlist lists a fragment after:\n" + "\n".join(lines))
    return faults


def from_fifo(scratch, lines, document):
    """Two fragments, and subtitles in each language, are made of what is written into the FIFO."""
    del document
    where, fifo = example_folder(scratch), scratch.path / "run/ch1.fifo"
    languages = re.findall(r"--captions (\w+)=", " ".join(lines))
    wanted = ["ch1.00000001.ts", *(f"ch1.m3u8.av.m3u8.{code}.vtt.m3u8" for code in languages)]
    with scratch.caption_writer():
        reader = scratch.start(lines, where, start_new_session=True)
        while not fifo.exists() and reader.poll() is None:
            time.sleep(0.1)
        source = scratch.start(["your-source > /run/ch1.fifo"], where, wanted,
                               start_new_session=True)
        # The reader may hold the FIFO open for writing too, and wait for ever.
        while source.poll() is None and reader.poll() is None:
            time.sleep(0.1)
        for process in (source, reader):
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGTERM)
        said = source.communicate()[1] + reader.communicate()[1]
    missing = [name for name in wanted if not (where / name).exists()]
    return [f"no {missing} after:", *lines, said] if missing else []


def describes(scratch, lines, document):
    """Says of the test stream that it starts."""
    del document
    process = scratch.start(lines, example_folder(scratch), stdout=subprocess.PIPE)
    printed, said = process.communicate()
    return [] if "Starts as it is: yes" in printed else [f"does not start: {printed}{said}", *lines]


def cleared(scratch, lines, document):
    """What a run left behind is gone."""
    del document
    where = example_folder(scratch)
    faults = scratch.run(["vorn_mpegts_to_hls < programme.ts"], where)
    faults += scratch.run(lines, where)
    return faults + [f"{path.name} is not removed" for path in where.glob("ch1*")]


# How a block is run whose commands contain this, in the order of the documents.
RUN = {
    "README.md": [("/path/to/build/release", first_run)],
    "docs/control-socket.md": [("ffprobe", prints_a_time)],
    "docs/limits.md": [("vorn_ts_prepare", example)],
    "docs/operations.md": [("systemctl", as_service), ("vorn-hls-publish", as_service),
                           ("vorn_hls_alive", alive), ("find ", old_files)],
    "docs/vorn_mpegts_to_hls.1": [
        ("socat", example), ("--programme", example), ("programme.ts", example),
        ("--separate-streams", example), ("mkfifo", from_fifo), ("--captions", from_fifo),
        ("--clear-old-only", cleared)],
    "docs/vorn_caption_feed.1": [("cc1", example), ("--base-time", from_fifo)],
    "docs/vorn_ts_prepare.1": [
        ("socat", example), ("--programme", example), ("--linger", from_fifo),
        ("--describe", describes)],
}


def check_runnable(scratch, name, ways):
    document = scratch.root / name
    faults, ways = [], list(ways)
    for lines in blocks(document):
        todo = [line for line in lines if line not in NOT_RUN]
        faults += [f"{line}: there is no such script" for line in lines
                   if line in NOT_RUN and not os.access(scratch.root / line, os.X_OK)]
        if not todo:
            continue
        if not ways or ways[0][0] not in "\n".join(todo):
            return [f"{name}: this test does not know what to make of\n" + "\n".join(todo)]
        faults += ways.pop(0)[1](scratch, todo, document)
        if faults:
            return faults  # what follows may need what this was to make
        print(f"{name}: ran", *todo, sep="\n    ")
    return faults + [f"{name} has no commands with '{words}'" for words, _ in ways]


def check_contributing(root, build):
    """Building and testing all over again would take an hour: what the commands name is there."""
    presets = json.loads((root / "CMakePresets.json").read_text())
    faults = []
    commands = [part for lines in blocks(root / "CONTRIBUTING.md") for line in lines
                for part in line.split(" && ") if part not in NOT_RUN]
    for command in commands:
        form = re.fullmatch(r"(cmake|cmake --build|ctest) --preset (\w+)(?: -R (\w+))?", command)
        kind = form and {"cmake": "configure", "cmake --build": "build", "ctest": "test"}[form[1]]
        if not form or form[2] not in {preset["name"] for preset in presets[f"{kind}Presets"]}:
            faults.append(f"CONTRIBUTING.md: there is no preset for {command}")
        elif form[3]:
            listed = subprocess.run(["ctest", "--test-dir", build, "-R", form[3], "--show-only"],
                                    check=True, capture_output=True, text=True).stdout
            if "Total Tests: 0" in listed:
                faults.append(f"CONTRIBUTING.md: no test is run by {command}")
    return faults if commands else ["no commands in CONTRIBUTING.md"]


def main():
    root = Path(sys.argv[1])
    with tempfile.TemporaryDirectory() as folder:
        scratch = Scratch(root, Path(folder))
        faults = check_contributing(root, sys.argv[2])
        for name, ways in RUN.items():
            faults = faults or check_runnable(scratch, name, ways)
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
