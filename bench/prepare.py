"""What vorn_ts_prepare in front changes, measured on live streams beside the program alone.

For each bit rate both run at once, fed by one pacer in real time:
- start: from the first byte to the first fragment that is listed;
- age: how long ago the newest picture (or sound) of a fragment had arrived when it was listed;
and at full speed, from pieces of the stream that begin anywhere:
- starts: how many of so many runs come to the main loop, with tables every 100 and 500 ms.
"""

import itertools
import os
import random
import re
import shutil
import statistics
import subprocess
import time

PACKET_BYTES = 188
START_UP_BYTES = 2 << 20
WRITE_BYTES = 7 * PACKET_BYTES  # of the pacer
GOP_FRAMES = 51  # 2.04 s, so that a fragment of 4 s holds two
RATES = (0.128, 1, 4, 8, 20, 50)  # Mbit/s; the first is sound alone
TABLE_INTERVALS_MS = (100, 500)


def pid_of(packet):
    return (packet[1] & 0x1F) << 8 | packet[2]


def pts_of(packet):
    """Of the PES packet that begins in it, with a PTS; None where none does."""
    payload = 4 + (1 + packet[4] if packet[3] & 0x20 else 0)
    pes = packet[payload:payload + 14]
    if not packet[1] & 0x40 or len(pes) < 14 or pes[:3] != b"\0\0\1" or not pes[7] & 0x80:
        return None
    return ((pes[9] >> 1 & 7) << 30 | pes[10] << 22 | pes[11] >> 1 << 15 | pes[12] << 7 |
            pes[13] >> 1)


def packets_of(data):
    return (data[at:at + PACKET_BYTES] for at in range(0, len(data), PACKET_BYTES))


def make_stream(path, rate, seconds, table_interval_ms):
    size, sound = ("1280x720", "128k") if rate > 1 else ("640x360", "96k")
    command = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
    if rate >= 1:
        bits = int(rate * 1e6 * 0.92 - 140_000)
        noise = f"testsrc2=size={size}:rate=25,noise=alls={min(100, int(6 * rate) + 4)}:allf=t"
        command += ["-f", "lavfi", "-i", noise]
        video = ["-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-b:v", bits,
                 "-minrate", bits, "-maxrate", bits, "-bufsize", bits // 2, "-g", GOP_FRAMES,
                 "-sc_threshold", 0]
    else:
        sound = "96k"
        video = []
    command += ["-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000", *video,
                "-c:a", "aac", "-b:a", sound, "-t", seconds, "-muxrate", int(rate * 1e6),
                "-pat_period", table_interval_ms / 1000, "-f", "mpegts", path]
    subprocess.run([str(word) for word in command], check=True)


class Watch:
    """When each fragment came to be listed in each of several directories."""

    def __init__(self, folders):
        self.playlists = [folder / "ch1.m3u8.av.m3u8" for folder in folders]
        self.listed = [{} for _ in folders]  # fragment's name: time of day

    def look(self):
        for playlist, listed in zip(self.playlists, self.listed):
            try:
                with playlist.open() as file:
                    names = re.findall(r"^ch1\.\d+\.ts$", file.read(), re.MULTILINE)
                    changed = os.fstat(file.fileno()).st_ctime
            except FileNotFoundError:
                continue
            for name in names:
                listed.setdefault(name, changed)


def newest_arrival(fragment, arrivals):
    """When the last picture in the fragment had arrived, from the beginning of the stream."""
    for packet in reversed(list(packets_of(fragment.read_bytes()))):
        pts = pts_of(packet)
        if pts is not None and (pid_of(packet), pts) in arrivals:
            return arrivals[pid_of(packet), pts]
    return None


def arrivals_of(data, rate):
    """By PID and PTS: the second in which the packet that begins a picture has arrived."""
    arrivals, video = {}, None
    for n, packet in enumerate(packets_of(data)):
        pts = pts_of(packet)
        if pts is None:
            continue
        is_video = packet[4 + (1 + packet[4] if packet[3] & 0x20 else 0) + 3] & 0xF0 == 0xE0
        if is_video:
            video = pid_of(packet)
        if video in (None, pid_of(packet)):
            block = n * PACKET_BYTES // WRITE_BYTES
            arrivals[pid_of(packet), pts] = block * WRITE_BYTES * 8 / (rate * 1e6)
    return arrivals


class PrepareBench:
    def __init__(self, bench, args, scratch, say):
        self.bench, self.args, self.scratch, self.say = bench, args, scratch, say
        self.prepare = str(args.bin / "vorn_ts_prepare")
        program = f"{bench.program} --no-padding --frag-backlog 1000"  # all stay to be looked at
        self.alone = program.split()
        self.together = ["sh", "-c", f"{self.prepare} | {program}; exit 0"]

    def live(self, rate):
        """Start and age, alone and together: (seconds, seconds) each."""
        fill = START_UP_BYTES * 8 / (rate * 1e6)
        seconds = int(fill + 22)
        path = self.scratch / "live.ts"
        make_stream(path, rate, seconds + 1, 100)
        work = self.scratch / "work"
        work.mkdir()
        folders = [work / "0", work / "1"]
        watch = Watch(folders)
        with self.bench.pacing([self.alone, self.together], path, work, 2, int(rate * 1e6),
                               seconds) as pacer:
            ends = time.monotonic() + seconds
            while pacer.poll() is None and time.monotonic() < ends:
                watch.look()
                time.sleep(0.005)
            output, _ = pacer.communicate()
        start = int(re.search(r"start_us (\d+)", output)[1]) / 1e6
        arrivals = arrivals_of(path.read_bytes(), rate)
        results = []
        for channel, (folder, listed) in enumerate(zip(folders, watch.listed)):
            begin = start + channel * WRITE_BYTES * 8 / (rate * 1e6) / 2
            ages = [at - begin - arrived for name, at in listed.items()
                    if (arrived := newest_arrival(folder / name, arrivals)) is not None]
            results.append((min(listed.values()) - begin if listed else None,
                            statistics.median(ages) if ages else None))
        shutil.rmtree(work)
        path.unlink()
        return results

    def starts(self, rate, interval_ms):
        """How many of the tries start, alone and together."""
        path = self.scratch / "starts.ts"
        make_stream(path, rate, max(8, int(START_UP_BYTES * 10 / (rate * 1e6))), interval_ms)
        data = path.read_bytes()
        path.unlink()
        last = max(0, len(data) - 3 * START_UP_BYTES // 2) // PACKET_BYTES
        places = [random.Random(n).randint(0, last) for n in range(self.args.tries)]
        counts = [0, 0]
        for place, contender in itertools.product(places, (0, 1)):
            work = self.scratch / "try"
            work.mkdir()
            piece = data[place * PACKET_BYTES:][:3 * START_UP_BYTES // 2]
            command = "cat | " + (f"{self.prepare} | " if contender else "")
            done = subprocess.run(["sh", "-c", command + f"{self.bench.program} --no-padding"],
                                  input=piece, cwd=work, capture_output=True, check=False)
            counts[contender] += b"Stream EOF" in done.stderr
            shutil.rmtree(work)
        return counts

    def cpu(self):
        """CPU ms per channel and second, alone and together, in one run; and the ratio."""
        a = self.args
        path = self.scratch / "cpu.ts"
        make_stream(path, 8, a.seconds + 1, 100)
        work = self.scratch / "work"
        work.mkdir()
        with self.bench.pacing([self.alone, self.together], path, work, a.channels, 8_000_000,
                               a.seconds) as pacer:
            output, _ = pacer.communicate()
        shutil.rmtree(work)
        path.unlink()
        cost = [[], []]
        for command, user, system in re.findall(
                r"^channel \d+ command (\d) .*user_us (\d+) sys_us (\d+)", output, re.MULTILINE):
            cost[int(command)].append((int(user) + int(system)) / 1e3 / a.seconds)
        alone, together = map(statistics.fmean, cost)
        return alone, together, together / alone

    def report(self):
        def shown(value):
            return "never" if value is None else f"{value:.2f}"

        print(f"{'':10}{'start s':>18}{'age s':>18}{'starts, 100 ms':>18}{'starts, 500 ms':>18}")
        print(f"{'Mbit/s':10}" + f"{'alone':>9}{'together':>9}" * 4)
        for rate in self.args.rates:
            self.say(f"{rate} Mbit/s")
            (start_a, age_a), (start_t, age_t) = self.live(rate)
            starts = [self.starts(rate, ms) for ms in TABLE_INTERVALS_MS]
            print(f"{rate:<10g}" + "".join(f"{word:>9}" for word in (
                shown(start_a), shown(start_t), shown(age_a), shown(age_t),
                *(f"{n}/{self.args.tries}" for pair in starts for n in pair))), flush=True)
        if self.args.channels:
            self.say("CPU time")
            alone, together, ratio = self.cpu()
            print(f"\nCPU ms per channel and second at 8 Mbit/s, {self.args.channels} channels: "
                  f"{alone:.2f} alone, {together:.2f} together, x {ratio:.2f}")
