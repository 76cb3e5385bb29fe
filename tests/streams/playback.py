"""Plays what the program wrote, with ffmpeg and ffprobe: they may complain about nothing, and what
is decoded must be what the same stretch of the input gives."""

import subprocess
from collections import Counter

from expect import expect_equal
from ffprobe import ffprobe
from transport_stream import CLOCK

LONGEST_PLAY_S = 120
END_TAG = "#EXT-X-ENDLIST\n"  # spares the wait for more; never written by the program


def _decoded(directory, *arguments):
    """Of every stream that ffmpeg decodes: its kind, and digests of its pictures or frames."""
    done = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", *arguments,
                           "-fps_mode", "passthrough", "-f", "framecrc", "-"], cwd=directory,
                          capture_output=True, text=True, timeout=LONGEST_PLAY_S, check=False)
    expect_equal(f"messages of ffmpeg {' '.join(arguments)}", done.stderr, "")
    expect_equal(f"exit status of ffmpeg {' '.join(arguments)}", done.returncode, 0)
    streams = {}
    for line in done.stdout.splitlines():
        if line.startswith("#media_type"):
            index, kind = line.removeprefix("#media_type").split(":")
            streams[int(index)] = (kind.strip(), [])
        elif not line.startswith("#"):
            # stream, dts, pts, duration, size, digest
            fields = line.replace(" ", "").split(",")
            streams[int(fields[0])][1].append(tuple(fields[4:6]))
    return sorted(streams.values())


def _maps(selections):
    return [word for selection in selections for word in ("-map", selection)]


class Player:
    """Knows what ffmpeg makes of stretches of one input stream."""

    def __init__(self, stream, programme):
        self.stream, self.programme = stream, programme
        self.known = {}

    def _input_decoded(self, directory, fragments, selections):
        """The stretches of the input that fragments cover."""
        stretches = tuple((fragment.begin, fragment.end) for fragment in fragments)
        key = (stretches, *selections)
        if key not in self.known:
            (directory / "input.ts").write_bytes(
                b"".join(self.stream[begin:end] for begin, end in stretches))
            self.known[key] = _decoded(directory, "-i", "input.ts", *_maps(selections))
        return self.known[key]

    def expect_plays(self, directory, renditions):
        """Each presentation, all its renditions at once, from its first listed fragment on."""
        playable = [rendition for rendition in renditions if rendition.listed_fragments]
        for rendition in playable:
            with open(directory / rendition.playlist, "a", encoding="ascii") as playlist:
                playlist.write(END_TAG)
        # A rendition that lists nothing, or nothing but tables, stops players of the master.
        whole = len(playable) == len(renditions)
        presentations = ([("ch1.m3u8", playable)] if whole
                         else [(rendition.playlist, [rendition]) for rendition in playable])
        for playlist, presented in presentations:
            listed = presented[0].listed_fragments
            selections = [f"0:i:{r.pid}" if r.pid else "0" for r in presented]
            expected = self._input_decoded(directory, listed, selections)
            decoded = _decoded(directory, "-i", playlist, "-map", "0")
            expect_equal(f"streams of {playlist}", [k for k, _ in decoded],
                         [k for k, _ in expected])
            expect_equal(f"frames of {playlist}", [len(frames) for _, frames in decoded],
                         [len(frames) for _, frames in expected])
            expect_equal(f"all decoded from {playlist} is as from the input", decoded == expected,
                         True)

    def expect_fragments_play_alone(self, directory, renditions):
        """Every listed fragment decoded by itself, from the tables at its start on."""
        number = self.programme.number
        for rendition in renditions:
            if not rendition.listed_fragments:
                continue
            listed = rendition.listed_fragments
            inputs = [word for fragment in listed for word in ("-i", fragment.name)]
            decoded = _decoded(directory, *inputs,
                               *_maps(f"{index}:p:{number}" for index in range(len(listed))))
            got = Counter()
            for kind, frames in decoded:
                got[kind] += len(frames)
            selection = f"0:i:{rendition.pid}" if rendition.pid else f"0:p:{number}"
            expected = Counter()
            for kind, frames in self._input_decoded(directory, listed, [selection]):
                expected[kind] += len(frames)
            if expected["video"]:
                expected["video"] = sum(self._shown(fragment) for fragment in listed)
            expect_equal(f"frames of the fragments of {rendition.playlist}", got, expected)

    def _shown(self, fragment):
        """The pictures of a fragment, save those shown before its first one: they refer to the
        fragment before."""
        pts = [unit.pts for unit in self.programme.units
               if fragment.begin <= unit.position < fragment.end]
        return sum((other - pts[0]) % CLOCK < CLOCK // 2 for other in pts)


def expect_live_master_is_known(directory, path):
    """ffprobe finds in the playlists as they are, without an end, all that the input has."""
    def codecs(of):
        return sorted(s["codec_name"] for s in ffprobe("-show_streams", str(of))["streams"])

    for playlist in ("ch1.m3u8", "ch1.m3u8.av.m3u8"):
        expect_equal(f"codecs in {playlist}", codecs(directory / playlist), codecs(path))
