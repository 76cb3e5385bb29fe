"""The streams of these tests: how ffmpeg makes each. A stream is made once and kept; delete the
folder to have it made anew."""

import fcntl
import os
import subprocess
from dataclasses import dataclass
from pathlib import Path

from annexb import with_start_codes
from mpeg_video import with_every_second_header_hidden
from program_tables import with_reserved_bits_in_pats
from transport_stream import CLOCK

AAC = "aac -b:a 96k"
MP2 = "mp2 -b:a 192k"
LANGUAGES = ("eng", "spa")
FIRST_PID = 0x100  # ffmpeg counts up from here, video first


@dataclass(frozen=True)
class Recipe:
    seconds: int
    picture: str = ""  # options of ffmpeg's testsrc2; empty: no video
    video: str = ""  # encoder and its options
    audio: tuple = (AAC,)  # the same of every audio stream
    programmes: int = 1  # all with these streams
    mux: str = ""  # options of the transport stream muxer
    # "mp4": muxed once before; "annexb3", "annexb4": start codes rewritten; afterwards "hiding":
    # every second group of MPEG-2 pictures loses its headers; "reserved": PATs get reserved bits.
    by_way_of: str = ""
    # False when a decoder that begins at a fragment, as any player does that joins there, has
    # reason to complain.
    joins_cleanly: bool = True


X264 = "libx264 -pix_fmt yuv420p -preset veryfast"
GOP_2_S = "-g 50 -keyint_min 50 -sc_threshold 0"
SMALL = "size=320x180:rate=25"
MEDIUM = "size=640x360:rate=25"
MPEG2 = "mpeg2video -b:v 1200k -bf 2 -g 50 -sc_threshold 1000000000"
CLOSED = "-flags +cgop"
WRAP_AFTER_21_S = f"-output_ts_offset {CLOCK / 90000 - 21:.3f}"
WRAP_AFTER_41_S = f"-output_ts_offset {CLOCK / 90000 - 41:.3f}"

RECIPES = {
    # Ten minutes of programme: the backlog fills and a hundred fragments go by.
    "long": Recipe(600, "size=320x180:rate=15",
                   f"{X264} -bf 0 -b:v 150k -g 30 -keyint_min 30 -sc_threshold 0"),
    # 1080 is no multiple of 16: coded as 1088 lines and cropped.
    "cropped_1080p": Recipe(24, "size=1920x1080:rate=25",
                            f"libx264 -pix_fmt yuv420p -preset ultrafast -crf 30 {GOP_2_S}"),
    "b_frames": Recipe(60, MEDIUM, f"{X264} -bf 3 -b_strategy 0 {GOP_2_S}"),
    # Keyframes are recovery points here, not IDR pictures, and pictures before them in
    # presentation follow them in the stream.
    "open_gop": Recipe(60, MEDIUM, f"{X264} -bf 3 -b_strategy 0 "
                       f"-x264-params open-gop=1:bframes=3 {GOP_2_S}", joins_cleanly=False),
    "slices": Recipe(60, MEDIUM, f"{X264} -bf 0 -x264-params slices=4 {GOP_2_S}"),
    "interlaced": Recipe(40, "size=720x576:rate=25,setfield=tff",
                         f"{X264} -flags +ildct+ilme {GOP_2_S}"),
    # What h264_mp4toannexb makes of length-prefixed units.
    "mp4_to_annexb": Recipe(50, MEDIUM, f"{X264} -bf 2 {GOP_2_S}", by_way_of="mp4"),
    "start_codes_of_3_bytes": Recipe(50, MEDIUM, f"{X264} -bf 0 -aud 1 {GOP_2_S}",
                                     by_way_of="annexb3"),
    "start_codes_of_4_bytes": Recipe(50, MEDIUM, f"{X264} -bf 0 -aud 1 {GOP_2_S}",
                                     by_way_of="annexb4"),
    # Time that starts beyond 600 s leaves nothing to measure before the first cut.
    "late_clock": Recipe(50, MEDIUM, f"{X264} {GOP_2_S}", mux="-output_ts_offset 2000"),
    # A constant-rate multiplex, filled up with padding packets as broadcasters do.
    "constant_rate": Recipe(40, MEDIUM, f"{X264} -b:v 1000k {GOP_2_S}", mux="-muxrate 3000000"),
    # The first picture alone is larger than what of a pipe may come before the tables are known.
    # With more threads its size would be another each time.
    "large_first_picture": Recipe(12, "size=1280x720:rate=25,noise=alls=60:allf=t",
                                  "libx264 -threads 1 -pix_fmt yuv420p -preset ultrafast -b:v 8M "
                                  f"-maxrate 8M -bufsize 10M {GOP_2_S}"),

    # All that an option can change: padding, a network entry at the head of the PAT, tables with
    # descriptors, packets of no stream, two audio streams.
    "every_option": Recipe(24, SMALL, f"{X264} -b:v 200k {GOP_2_S}", (AAC, MP2), programmes=2,
                           mux="-muxrate 1600000 -mpegts_flags nit", by_way_of="reserved"),
    "network_entry_without_reserved_bits_stays_first":
        Recipe(24, SMALL, f"{X264} -b:v 700k {GOP_2_S}", mux="-mpegts_flags nit"),
    "two_audio_streams": Recipe(30, SMALL, f"{X264} -b:v 800k {GOP_2_S}", (AAC, AAC)),
    "mpeg_audio_first": Recipe(30, SMALL, f"{X264} -b:v 800k {GOP_2_S}", (MP2, AAC)),
    "30000_pictures_in_1001_s": Recipe(30, "size=320x180:rate=30000/1001",
                                       f"{X264} -b:v 800k -bf 0 -g 60 -keyint_min 60 "
                                       "-sc_threshold 0", (MP2,)),
    "mpeg2_closed_gop": Recipe(30, SMALL, f"{MPEG2} {CLOSED}", (MP2,)),
    "mpeg2_open_gop": Recipe(30, SMALL, MPEG2, (MP2, AAC)),
    "mpeg2_closed_gop_is_cut_without_its_headers_too":
        Recipe(30, SMALL, f"{MPEG2} {CLOSED}", (MP2,), by_way_of="hiding", joins_cleanly=False),
    "mpeg2_open_gop_is_not_cut_without_its_headers":
        Recipe(30, SMALL, MPEG2, (MP2,), by_way_of="hiding"),
    "five_programmes": Recipe(30, SMALL, f"{X264} -b:v 400k -bf 0 {GOP_2_S}", (AAC, MP2),
                              programmes=5),
    "video_only_leaves_a_pat_in_each_audio_fragment":
        Recipe(30, SMALL, f"{X264} -b:v 800k {GOP_2_S}", ()),
    "audio_only_aac_leaves_the_video_playlist_empty": Recipe(120, audio=("aac -b:a 256k",)),
    "audio_only_mp2_leaves_the_video_playlist_empty":
        Recipe(60, audio=("mp2 -b:a 384k", "mp2 -b:a 192k")),
    # The clock's wrap is a jump in time to video: the next keyframe cuts.
    "clock_that_wraps_cuts_at_the_next_keyframe":
        Recipe(40, SMALL, f"{X264} -b:v 800k -bf 0 {GOP_2_S}", (AAC, MP2), mux=WRAP_AFTER_21_S),
    # Time goes to and fro across the wrap here: the fragment's length comes out as 26 hours, which
    # is not believed, and a fragment without a length is not listed.
    "clock_that_wraps_among_b_frames_leaves_a_fragment_unlisted":
        Recipe(40, SMALL, f"{X264} -b:v 800k {GOP_2_S}", (AAC, MP2), mux=WRAP_AFTER_21_S),
    "audio_is_not_cut_again_once_the_clock_has_wrapped":
        Recipe(80, audio=("mp2 -b:a 384k",), mux=WRAP_AFTER_41_S),
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


def _multiplex(recipe, streams):
    """Options of the muxer; the programmes take the streams in turn."""
    options = recipe.mux.split()
    if recipe.programmes > 1:
        for number in range(recipe.programmes):
            members = range(number * streams, (number + 1) * streams)
            options += ["-program", f"program_num={number + 11}"
                        + "".join(f":st={member}" for member in members)]
    return [*options, "-f", "mpegts"]


def _make(recipe, stream):
    until = ["-t", str(recipe.seconds)]
    picture = ["-f", "lavfi", "-i", f"testsrc2={recipe.picture}"] if recipe.picture else []
    encode_video = ["-c:v", *recipe.video.split()] if recipe.picture else []
    sound, encode_audio = [], []
    for index, encoder in enumerate(recipe.audio):
        sound += ["-f", "lavfi", "-i", f"sine=frequency={440 + 110 * index}:sample_rate=48000"]
    for index in range(len(recipe.audio) * recipe.programmes):
        codec, option, rate = recipe.audio[index % len(recipe.audio)].split()
        language = LANGUAGES[index % len(recipe.audio)]
        encode_audio += [f"-c:a:{index}", codec, f"{option}:{index}", rate,
                         f"-metadata:s:a:{index}", f"language={language}"]
    inputs = len(recipe.audio) + bool(recipe.picture)
    maps = [word for number in range(inputs) for word in ("-map", str(number))]
    maps *= recipe.programmes
    unfinished = stream.with_suffix(".unfinished")
    transport_stream = [*_multiplex(recipe, inputs), str(unfinished)]

    if recipe.by_way_of == "mp4":
        between = stream.with_suffix(".mp4")
        _ffmpeg(*picture, *sound, *until, *maps, *encode_video, *encode_audio, str(between))
        _ffmpeg("-i", str(between), "-c", "copy", *transport_stream)
        between.unlink()
    elif recipe.by_way_of.startswith("annexb"):
        between = stream.with_suffix(".h264")
        _ffmpeg(*picture, *until, *encode_video, str(between))
        between.write_bytes(with_start_codes(between.read_bytes(), int(recipe.by_way_of[-1])))
        _ffmpeg("-framerate", recipe.picture.split("rate=")[1], "-i", str(between), *sound, *until,
                *maps, "-c:v", "copy", *encode_audio, *transport_stream)
        between.unlink()
    else:
        _ffmpeg(*picture, *sound, *until, *maps, *encode_video, *encode_audio, *transport_stream)
    if recipe.by_way_of == "hiding":
        unfinished.write_bytes(with_every_second_header_hidden(unfinished.read_bytes(), FIRST_PID))
    elif recipe.by_way_of == "reserved":
        unfinished.write_bytes(with_reserved_bits_in_pats(unfinished.read_bytes()))
    os.replace(unfinished, stream)
