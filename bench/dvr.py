"""What vorn_hls_publish costs once a day of segments is listed (--dvr 24h): per segment, in CPU time,
in bytes and in delay, and how soon it publishes again after a kill.

The day is sent as fast as it is published; then a few segments follow one by one.
"""

import pathlib
import re
import shutil
import statistics
import subprocess
import time

from publish import PROGRAM_OPTIONS, ListingWatch, cpu_seconds, last_listed, memory_kib, written_bytes

GOP_SECONDS = 6        # a segment each
MOST_AHEAD = 100       # fragments, well within what the program keeps
FRAGMENTS_KEPT = 300
CHUNK_BYTES = 1 << 16
STEPS = 100
KILLS = 10


class DvrBench:
    def __init__(self, program, publisher, args, scratch, say):
        self.args, self.scratch, self.say = args, scratch, say
        self.work = scratch / "work"
        self.published = self.work / "out/main.m3u8"
        self.program_command = [program, *PROGRAM_OPTIONS]
        self.program_command[self.program_command.index("--frag-backlog") + 1] = str(FRAGMENTS_KEPT)
        self.publisher_command = [publisher, "--from", ".", "--to", "out", "--segment",
                                  str(GOP_SECONDS), *args.list.split()]

    def start_publisher(self):
        self.publisher = subprocess.Popen(self.publisher_command, cwd=self.work)

    def report(self):
        hours = self.args.hours
        self.work.mkdir()
        self.say(f"dvr: {hours} hours of programme, {self.args.list}")
        self.start_publisher()
        with (subprocess.Popen(self.program_command, cwd=self.work, stdin=subprocess.PIPE,
                               stderr=subprocess.DEVNULL) as program,
              subprocess.Popen(["ffmpeg", "-nostdin", "-v", "error", "-stream_loop", "-1", "-i",
                                self.clip(), "-c", "copy", "-f", "mpegts", "pipe:1"],
                               stdout=subprocess.PIPE) as source):
            try:
                began = time.monotonic()
                self.first = None
                self.feed(source.stdout, program.stdin, hours * 3600 / GOP_SECONDS, MOST_AHEAD)
                print(f"\nlisted: {self.listed()} segments, {self.published.stat().st_size} bytes, "
                      f"after {time.monotonic() - began:.0f} s")
                self.step_by_step(source.stdout, program.stdin)
                self.kill_again_and_again()
            finally:
                for process in (source, program, self.publisher):
                    process.kill()
                self.publisher.wait()
        shutil.rmtree(self.work)

    def listed(self):
        return self.published.read_text().count("\n#EXTINF:")

    def done(self):
        """Segments published so far, and how many fragments the program is ahead of that."""
        written = last_listed(self.work / "ch1.m3u8.av.m3u8")
        published = last_listed(self.published)
        if written is None or published is None:
            return 0, 0
        if self.first is None:  # it lists a whole day, so nothing has left it
            text = self.published.read_text()
            self.first = int(re.search(r"^#EXT-X-MEDIA-SEQUENCE:(\d+)", text, re.M)[1])
        done = published - self.first + 1
        return done, written + 1 - done

    def feed(self, source, program, wanted, most_ahead, watch=None):
        done = 0
        while done < wanted:
            program.write(source.read(CHUNK_BYTES))
            done, ahead = self.done()
            while ahead > most_ahead:
                time.sleep(0.002)
                done, ahead = self.done()
            if watch is not None:
                watch.look()
        return done

    def step_by_step(self, source, program):
        begin, _ = self.done()
        pid = self.publisher.pid
        cpu, written = cpu_seconds(pid), written_bytes(pid)
        watch = ListingWatch([self.work])
        end = self.feed(source, program, begin + STEPS, 0, watch)
        steps = end - begin
        print(f"one by one, {steps} segments: {(cpu_seconds(pid) - cpu) / steps * 1e3:.2f} ms of CPU "
              f"and {(written_bytes(pid) - written) / steps / 1024:.0f} KiB written for each")
        delays = watch.delays_ms()
        print(f"from the program's playlist to the published one: half {statistics.median(delays):.1f}, "
              f"all {delays[-1]:.1f} ms")
        print(f"memory: {memory_kib(pid, 'VmRSS') / 1024:.1f} MiB, at most "
              f"{memory_kib(pid, 'VmHWM') / 1024:.1f} MiB")

    def kill_again_and_again(self):
        times = []
        for _ in range(KILLS):
            self.publisher.kill()
            self.publisher.wait()
            before = self.published.stat().st_ino
            began = time.time()
            self.start_publisher()
            while self.published.stat().st_ino == before:
                time.sleep(0.001)
            times.append(self.published.stat().st_ctime - began)
        print(f"killed and started, until the playlist is written: half "
              f"{statistics.median(times) * 1e3:.0f}, all {max(times) * 1e3:.0f} ms")

    def clip(self):
        """Whole GOPs, and few bytes: a day of them has to fit."""
        clip = self.scratch / "tiny.mp4"
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                        "testsrc2=size=160x90:rate=10", "-t", "60", "-c:v", "libx264", "-preset",
                        "ultrafast", "-pix_fmt", "yuv420p", "-b:v", "24k", "-g",
                        str(10 * GOP_SECONDS), "-keyint_min", str(10 * GOP_SECONDS),
                        "-sc_threshold", "0", clip], check=True)
        return pathlib.Path(clip)
