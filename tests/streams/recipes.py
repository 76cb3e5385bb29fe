"""The streams of these tests: how ffmpeg makes each, and what must be true of the result for the
test to mean anything. A stream is made once and kept; delete the folder to have it made anew."""

import fcntl
import os
import subprocess
from dataclasses import dataclass
from pathlib import Path

from annexb import with_start_codes


@dataclass(frozen=True)
class Recipe:
    picture: str  # options of ffmpeg's testsrc2
    seconds: int
    video: str  # options of libx264
    mux: str = ""  # options of the transport stream muxer
    by_way_of: str = ""  # "mp4": muxed once before; "annexb3", "annexb4": start codes rewritten
    pictures_per_second: int = 25
    # False when the first pictures of a fragment refer to some before it, so that a decoder that
    # begins there, as any player does that joins there, has reason to complain.
    joins_cleanly: bool = True


GOP_2_S = "-g 50 -keyint_min 50 -sc_threshold 0"

RECIPES = {
    # Ten minutes of programme: the backlog fills and a hundred fragments go by.
    "long": Recipe("size=320x180:rate=15", 600, "-preset veryfast -bf 0 -b:v 150k "
                   "-g 30 -keyint_min 30 -sc_threshold 0", pictures_per_second=15),
    # 1080 is no multiple of 16: coded as 1088 lines and cropped.
    "cropped_1080p": Recipe("size=1920x1080:rate=25", 24,
                            f"-preset ultrafast -crf 30 {GOP_2_S}"),
    "b_frames": Recipe("size=640x360:rate=25", 60, f"-preset veryfast -bf 3 -b_strategy 0 {GOP_2_S}"),
    # Keyframes are recovery points here, not IDR pictures, and pictures before them in
    # presentation follow them in the stream.
    "open_gop": Recipe("size=640x360:rate=25", 60, "-preset veryfast -bf 3 -b_strategy 0 "
                       f"-x264-params open-gop=1:bframes=3 {GOP_2_S}", joins_cleanly=False),
    "slices": Recipe("size=640x360:rate=25", 60, "-preset veryfast -bf 0 "
                     f"-x264-params slices=4 {GOP_2_S}"),
    "interlaced": Recipe("size=720x576:rate=25,setfield=tff", 40,
                         f"-preset veryfast -flags +ildct+ilme {GOP_2_S}"),
    # What h264_mp4toannexb makes of length-prefixed units.
    "mp4_to_annexb": Recipe("size=640x360:rate=25", 50, f"-preset veryfast -bf 2 {GOP_2_S}",
                            by_way_of="mp4"),
    "start_codes_of_3_bytes": Recipe("size=640x360:rate=25", 50,
                                     f"-preset veryfast -bf 0 -aud 1 {GOP_2_S}", by_way_of="annexb3"),
    "start_codes_of_4_bytes": Recipe("size=640x360:rate=25", 50,
                                     f"-preset veryfast -bf 0 -aud 1 {GOP_2_S}", by_way_of="annexb4"),
    # Time that starts beyond 600 s leaves nothing to measure before the first cut.
    "late_clock": Recipe("size=640x360:rate=25", 50, f"-preset veryfast {GOP_2_S}",
                         mux="-output_ts_offset 2000"),
    # A constant-rate multiplex, filled up with padding packets as broadcasters do.
    "constant_rate": Recipe("size=640x360:rate=25", 40, f"-preset veryfast -b:v 1000k {GOP_2_S}",
                            mux="-muxrate 3000000"),
}


def stream_of(name, cache):
    """The path of a recipe's stream, made now if it is not in the cache."""
    cache = Path(cache)
    cache.mkdir(parents=True, exist_ok=True)
    recipe = RECIPES[name]
    # Two builds may run their tests at the same time.
    with open(cache / f"{name}.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        stream, made_by = cache / f"{name}.ts", cache / f"{name}.recipe"
        if not (stream.exists() and made_by.exists() and made_by.read_text() == repr(recipe)):
            _make(recipe, stream)
            made_by.write_text(repr(recipe))
    return stream


def _ffmpeg(*arguments):
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *arguments],
                   check=True, stdin=subprocess.DEVNULL)


def _make(recipe, stream):
    picture = ["-f", "lavfi", "-i", f"testsrc2={recipe.picture}"]
    sound = ["-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000"]
    encode_video = ["-c:v", "libx264", "-pix_fmt", "yuv420p", *recipe.video.split()]
    encode_audio = ["-c:a", "aac", "-b:a", "96k"]
    until = ["-t", str(recipe.seconds)]
    unfinished = stream.with_suffix(".unfinished")
    transport_stream = [*recipe.mux.split(), "-f", "mpegts", str(unfinished)]
    between = stream.with_suffix(".h264" if recipe.by_way_of.startswith("annexb") else ".mp4")

    if not recipe.by_way_of:
        _ffmpeg(*picture, *sound, *until, *encode_video, *encode_audio, *transport_stream)
    elif recipe.by_way_of == "mp4":
        _ffmpeg(*picture, *sound, *until, *encode_video, *encode_audio, str(between))
        _ffmpeg("-i", str(between), "-c", "copy", *transport_stream)
    else:
        _ffmpeg(*picture, *until, *encode_video, str(between))
        between.write_bytes(with_start_codes(between.read_bytes(), int(recipe.by_way_of[-1])))
        _ffmpeg("-framerate", str(recipe.pictures_per_second), "-i", str(between), *sound, *until,
                "-map", "0:v", "-map", "1:a", "-c:v", "copy", *encode_audio, *transport_stream)
    between.unlink(missing_ok=True)
    os.replace(unfinished, stream)
