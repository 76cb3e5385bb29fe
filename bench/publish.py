"""What vorn_hls_publish behind the program costs, beside the program alone and ffmpeg's HLS muxer.

- cost: CPU time on live channels that the contenders share, and the bytes that the publisher writes
  for a segment, of one GOP and of three;
- delay: many presentations at once, from the program's playlist that lists a fragment to the
  published one;
- sources: CPU time of the publisher alone by the number of sources and of rungs that it follows, on
  live channels that all the contenders share;
- twins: as delay, of presentations with two sources each, from the list of whichever is first;
- memory: after a day of programme, sent as fast as it is published.
"""

import functools
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import time

GOP_SECONDS = 2
PROGRAM_OPTIONS = "--frag-duration 1 --frag-backlog 10 --start-pat-pmt --no-padding".split()
FFMPEG = ("ffmpeg -nostdin -v error -i pipe:0 -map 0 -c copy -f hls -hls_time 2 -hls_list_size 10 "
          "-hls_flags delete_segments+program_date_time out.m3u8").split()
SETTLED_SECONDS = 15  # the first segments and playlists are another matter
LOOK_SECONDS = 0.5    # segments are seconds apart
# The memory's run: fragments that the program may be ahead by, well within what it keeps.
MOST_AHEAD = 100
CHUNK_BYTES = 1 << 16


def processes_below(pid):
    """(process, its name) of all descendants."""
    for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split():
        yield int(child), pathlib.Path(f"/proc/{child}/comm").read_text().strip()
        yield from processes_below(child)


def cpu_seconds(pid):
    """Of its one thread, in the scheduler's own nanoseconds."""
    return sum(int(task.read_text().split()[0])
               for task in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")) / 1e9


def written_bytes(pid):
    """Handed to write(2) and its like, whatever became of them."""
    return int(re.search(r"^wchar: (\d+)", pathlib.Path(f"/proc/{pid}/io").read_text(), re.M)[1])


def memory_kib(pid, field):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(rf"^{field}:\s+(\d+) kB", status, re.M)[1])


def last_listed(playlist):
    """The number of the last segment, from 0, counted from the list's own first one."""
    try:
        text = playlist.read_text()
    except FileNotFoundError:
        return None
    first = re.search(r"^#EXT-X-MEDIA-SEQUENCE:(\d+)", text, re.M)
    count = text.count("\n#EXTINF:")
    return int(first[1]) + count - 1 if first and count else None


class Sample:
    """Of one channel at one moment: CPU seconds by process name, and what the publisher wrote."""

    def __init__(self, shell, folder):
        self.cpu, self.written, self.rss = {}, 0, 0
        everyone = [(shell, pathlib.Path(f"/proc/{shell}/comm").read_text().strip())]
        for pid, name in everyone + list(processes_below(shell)):
            self.cpu[name[:14]] = cpu_seconds(pid)
            if name.startswith("vorn_hls_publi"):
                self.written = written_bytes(pid)
                self.rss = memory_kib(pid, "VmRSS")
        self.last = last_listed(folder / "out/main.m3u8")
        self.sizes = [file.stat().st_size for file in folder.glob("out/main.*.ts")]
        self.at = time.monotonic()


class ListingWatch:
    """When each fragment came into the playlist of the first source that has it, and into the
    published one. The status of a file changes last when it is renamed into its place. A published
    segment of one GOP is the fragment's own file, so its inode tells which one it is. Sources of one
    channel begin together, so their fragments have the same names."""

    def __init__(self, channels):
        self.channels = channels               # folders of the sources, with the publisher's in the first
        self.names = {}                        # (channel, inode): the fragment's name
        self.program, self.published = {}, {}  # (channel, name) and (channel, inode): time

    def look(self):
        for channel, sources in enumerate(self.channels):
            for source in sources:
                if listed := self.last_listed(source / "ch1.m3u8.av.m3u8"):
                    name, inode, at = listed
                    self.names[channel, inode] = name
                    self.program[channel, name] = min(at, self.program.get((channel, name), at))
            if listed := self.last_listed(sources[0] / "out/main.m3u8"):
                _, inode, at = listed
                self.published.setdefault((channel, inode), at)

    @staticmethod
    def last_listed(path):
        """Name and inode of the last one, and the time when the list was put in its place."""
        try:
            with path.open() as playlist:
                names = re.findall(r"^[^#\n]+$", playlist.read(), re.M)
                status = os.fstat(playlist.fileno())
            if names and status.st_nlink > 0:  # else it has been replaced, which changes it again
                return names[-1], (path.parent / names[-1]).stat().st_ino, status.st_ctime_ns
        except FileNotFoundError:
            pass
        return None

    def delays_ms(self):
        return sorted((at - self.program[of[0], self.names[of]]) / 1e6
                      for of, at in self.published.items() if of in self.names)


class PublishBench:
    def __init__(self, bench, args, scratch, say):
        self.bench, self.args, self.scratch, self.say = bench, args, scratch, say
        self.publisher = str(args.bin / "vorn_hls_publish")
        self.program = [bench.program, *PROGRAM_OPTIONS]

    def published(self, segment_seconds, more=""):
        """A channel with a publisher beside the program, which ends with it."""
        publish = (f"setpriv --pdeathsig KILL {self.publisher} --from . {more} --to out "
                   f"--segment {segment_seconds} --window 20 --listen 127.0.0.1:0")
        return ["sh", "-c", f"{publish} & {' '.join(self.program)}; kill $!; wait $!; exit 0"]

    def published_from(self, rungs):
        """A channel with a program for each source of each rung, all on the same stream, and one
        publisher. The sources are the folders s0, s1, and so on, the rungs main, rung1 and so on."""
        count = sum(rungs)
        names = [f"s{i}" for i in range(count)]
        config = f'output = "out"\nsegment = {GOP_SECONDS}\nwindow = 20\n'
        for rung, sources in enumerate(rungs):
            mine = [names.pop(0) for _ in range(sources)]
            config += f'[[rendition]]\nname = "{f"rung{rung}" if rung else "main"}"\nsources = {mine}\n'
        script = f"cat > publish.toml <<'END'\n{config.replace(chr(39), chr(34))}END\n"
        for i in range(count):
            script += (f"mkdir s{i}; mkfifo pipe{i}\n"
                       f"(cd s{i}; exec setpriv --pdeathsig KILL {' '.join(self.program)}) < pipe{i} &\n")
        script += (f"setpriv --pdeathsig KILL {self.publisher} --config publish.toml & publisher=$!\n"
                   f"tee {' '.join(f'pipe{i}' for i in range(count))} > /dev/null\n"
                   "kill $publisher; wait; exit 0")
        return ["sh", "-c", script]

    # Cost

    def cost(self):
        a = self.args
        contenders = [("program", self.program), ("published", self.published(GOP_SECONDS)),
                      ("published, 3 GOPs", self.published(3 * GOP_SECONDS)), ("ffmpeg", FFMPEG)]
        work = self.scratch / "work"
        work.mkdir()
        self.say(f"cost: {a.channels} channels at {a.rate} Mbit/s for {a.seconds} s")
        with self.bench.pacing([command for _, command in contenders], self.stream, work,
                               a.channels, a.rate * 1_000_000, a.seconds) as pacer:
            before = self.samples(pacer, work, SETTLED_SECONDS)
            after = self.samples(pacer, work, a.seconds - SETTLED_SECONDS - 1)
            self.bench.finish(pacer, work)
        shutil.rmtree(work)

        def per_second(process, of):
            return self.per_second(before, after, process, range(of, a.channels, len(contenders)))

        alone = per_second("vorn_mpegts_to", 0)
        print(f"\nLive, {a.channels} channels shared by the contenders, {a.rate} Mbit/s, "
              f"CPU ms per channel and second")
        print(f"{'':20}{'program':>9}{'publisher':>11}{'together':>10}{'x alone':>9}"
              f"{'written per segment':>21}{'its size':>11}")
        for n, (name, command) in enumerate(contenders):
            if command == FFMPEG:
                program, publisher = per_second("ffmpeg", n), None
            else:
                program = per_second("vorn_mpegts_to", n)
                publisher = per_second("vorn_hls_publi", n) if n else None
            together = program + (publisher or 0)
            line = f"{name:20}{program:9.2f}{publisher or 0:11.3f}{together:10.2f}"
            line += f"{together / alone:9.3f}"
            if publisher is not None:
                mine = range(n, a.channels, len(contenders))
                count = sum(after[k].last - before[k].last for k in mine)
                written = sum(after[k].written - before[k].written for k in mine)
                size = statistics.fmean(size for k in mine for size in after[k].sizes)
                line += f"{written / count / 1024:17.1f} KiB{size / 1024:7.0f} KiB"
            print(line)
        print(f"memory of the publishers: {max(s.rss for s in after) / 1024:.1f} MiB at most")

    @staticmethod
    def per_second(before, after, process, channels):
        """CPU ms per second, the mean over the channels."""
        return statistics.fmean(
            (after[k].cpu[process] - before[k].cpu[process]) * 1e3 / (after[k].at - before[k].at)
            for k in channels)

    # Sources and rungs

    def sources(self):
        a = self.args
        contenders = [("one source", [1]), ("two sources, twins", [2]), ("three sources", [3]),
                      ("two rungs", [1, 1]), ("three rungs", [1, 1, 1]), ("two rungs of twins", [2, 2])]
        work = self.scratch / "work"
        work.mkdir()
        self.say(f"sources: {a.channels} channels at {a.rate} Mbit/s for {a.seconds} s")
        with self.bench.pacing([self.published_from(rungs) for _, rungs in contenders], self.stream,
                               work, a.channels, a.rate * 1_000_000, a.seconds) as pacer:
            before = self.samples(pacer, work, SETTLED_SECONDS)
            after = self.samples(pacer, work, a.seconds - SETTLED_SECONDS - 1)
            self.bench.finish(pacer, work)
        shutil.rmtree(work)
        costs = [self.per_second(before, after, "vorn_hls_publi", range(n, a.channels, len(contenders)))
                 for n in range(len(contenders))]
        print(f"\nThe publisher, {a.channels} channels shared by the contenders, {a.rate} Mbit/s each "
              f"source, CPU ms per channel and second")
        for n, (name, _) in enumerate(contenders):
            rss = max(after[k].rss for k in range(n, a.channels, len(contenders)))
            print(f"{name:20}{costs[n]:9.3f}{costs[n] / costs[0]:9.2f} x one source{rss / 1024:9.1f} MiB")

    def samples(self, pacer, work, seconds):
        time.sleep(seconds)
        children = pathlib.Path(f"/proc/{pacer.pid}/task/{pacer.pid}/children").read_text().split()
        return [Sample(int(child), work / str(k)) for k, child in enumerate(children)]

    @functools.cached_property
    def stream(self):
        return self.bench.one_programme()

    # Delay

    def delay(self):
        self.delays("presentations", self.args.presentations, [self.published(GOP_SECONDS)])

    def twins(self):
        """The second source of a presentation is the channel behind its first."""
        following = "--from ../$((${PWD##*/} + 1))"
        self.delays("twins", self.args.twins, [self.published(GOP_SECONDS, following), self.program])

    def delays(self, what, count, commands):
        a = self.args
        work = self.scratch / "work"
        work.mkdir()
        self.say(f"{count} {what} for {a.seconds} s")
        each = len(commands)
        folders = [work / str(k) for k in range(count * each)]
        watch = ListingWatch([folders[k:k + each] for k in range(0, len(folders), each)])
        with self.bench.pacing(commands, self.stream, work, len(folders), a.rate * 1_000_000,
                               a.seconds, GOP_SECONDS * 1000) as pacer:
            ends = time.monotonic() + a.seconds - 2
            while pacer.poll() is None and time.monotonic() < ends:
                watch.look()
                time.sleep(LOOK_SECONDS)
            self.bench.finish(pacer, work)
        shutil.rmtree(work)
        delays = watch.delays_ms()
        print(f"\n{count} {what} at {a.rate} Mbit/s: {len(delays)} segments, "
              "from the program's playlist to the published one")
        for name, share in (("half", 0.5), ("99 of 100", 0.99), ("all", 1)):
            print(f"  {name}: {delays[max(0, int(len(delays) * share + 0.5) - 1)]:.1f} ms")
        print(f"  within 20 ms: {sum(delay <= 20 for delay in delays) / len(delays) * 100:.2f} %")

    # Memory

    def memory(self):
        hours = self.args.hours
        work = self.scratch / "work"
        work.mkdir()
        clip = self.small_clip()
        self.say(f"memory: {hours} hours of programme")
        began = time.monotonic()
        options = [word if word != "10" else "300" for word in PROGRAM_OPTIONS]
        with (subprocess.Popen([self.publisher, "--from", ".", "--to", "out", "--segment", "2",
                                "--window", "12"], cwd=work) as publisher,
              subprocess.Popen([self.bench.program, *options], cwd=work, stdin=subprocess.PIPE,
                               stderr=subprocess.DEVNULL) as program,
              subprocess.Popen(["ffmpeg", "-nostdin", "-v", "error", "-stream_loop", "-1", "-i",
                                clip, "-c", "copy", "-t", str(int(hours * 3600)), "-f", "mpegts",
                                "pipe:1"], stdout=subprocess.PIPE) as source):
            try:
                print(f"\n{'hours':>6}{'segments':>10}{'resident MiB':>14}")
                self.feed_evenly(source.stdout, program.stdin, publisher, work)
                peak = memory_kib(publisher.pid, "VmHWM") / 1024
            finally:
                for process in (source, program, publisher):
                    process.kill()
        seconds = time.monotonic() - began
        print(f"at most {peak:.1f} MiB, at {hours * 3600 / seconds:.0f} times the speed of life")
        shutil.rmtree(work)

    def feed_evenly(self, source, program, publisher, work):
        """Never further than the publisher can follow; tells the memory now and then."""
        def tell():
            print(f"{done * GOP_SECONDS / 3600:6.1f}{done:10}"
                  f"{memory_kib(publisher.pid, 'VmRSS') / 1024:14.1f}", flush=True)

        first, told = None, 0
        wanted = self.args.hours * 3600 / GOP_SECONDS
        while chunk := source.read(CHUNK_BYTES):
            program.write(chunk)
            while True:
                written = last_listed(work / "ch1.m3u8.av.m3u8")
                published = last_listed(work / "out/main.m3u8")
                first = published if first is None else first
                done = published - first + 1 if published is not None else 0
                if written is None or written - done < MOST_AHEAD:
                    break
                time.sleep(0.002)
            if done >= (told + 1) * wanted / 8:
                told += 1
                tell()
        tell()

    def small_clip(self):
        """Whole GOPs and AAC frames, so that it loops without a seam."""
        clip = self.scratch / "small.mp4"
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                        "testsrc2=size=320x180:rate=25", "-f", "lavfi", "-i",
                        "sine=frequency=440:sample_rate=48000", "-t", "32", "-c:v", "libx264",
                        "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-b:v", "200k", "-g", "50",
                        "-keyint_min", "50", "-sc_threshold", "0", "-c:a", "aac", "-b:a", "64k",
                        clip], check=True)
        return clip

    def report(self):
        for part in self.args.parts:
            getattr(self, part)()
