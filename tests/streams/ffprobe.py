"""What ffprobe says about a stream."""

import json
import subprocess
from dataclasses import dataclass

from mpeg_video import begins_group
from transport_stream import CLOCK, access_units


@dataclass
class Unit:
    """A PES packet of the stream that decides about the cuts: a picture, or a few audio frames."""
    position: int  # of its first transport packet in the stream, bytes
    pts: int  # 90 kHz, modulo 2^33
    may_cut: bool
    slice_type: str = ""  # I, P or B


@dataclass
class Programme:
    number: int
    pmt_pid: int
    streams: list  # ffprobe's fields of the streams
    video: dict  # of the video stream; None without one
    video_pid: int  # 0 if there is none, as with the next two
    audio_pid: int
    sap_pid: int
    units: list  # in stream order


def ffprobe(*arguments):
    run = subprocess.run(["ffprobe", "-v", "error", "-of", "json", *arguments],
                         stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True)
    return json.loads(run.stdout)


def _pictures(path, video, video_pid):
    """ffprobe's pictures; one of MPEG-2 video may cut for what stands before it."""
    frames = ffprobe("-select_streams", f"i:{video_pid}",
                     "-show_entries", "frame=pkt_pos,pts,pict_type", str(path))["frames"]
    pictures = [Unit(int(f["pkt_pos"]), f["pts"] % CLOCK, f["pict_type"] == "I", f["pict_type"])
                for f in frames]
    pictures.sort(key=lambda picture: picture.position)

    coded = access_units(path.read_bytes(), video_pid)
    assert [p.position for p in pictures] == list(coded), "a picture is not one PES packet"
    if video["codec_name"] == "mpeg2video":
        for picture in pictures:
            picture.may_cut = begins_group(coded[picture.position])
    return pictures


def _audio_units(path, audio_pid):
    packets = ffprobe("-fflags", "+noparse", "-select_streams", f"i:{audio_pid}",
                      "-show_packets", "-show_entries", "packet=pos,pts", str(path))["packets"]
    return [Unit(int(p["pos"]), p["pts"] % CLOCK, True) for p in packets]


def programme_of(path):
    """The first programme of a stream that ffmpeg made."""
    about = ffprobe("-show_programs", str(path))["programs"][0]
    of_kind = {kind: [s for s in about["streams"] if s["codec_type"] == kind]
               for kind in ("video", "audio")}
    pids = {kind: [int(s["id"], 16) for s in streams] + [0, 0]
            for kind, streams in of_kind.items()}
    video, video_pid = (of_kind["video"] + [None])[0], pids["video"][0]
    audio_pid, sap_pid = pids["audio"][:2]
    units = (_pictures(path, video, video_pid) if video else _audio_units(path, audio_pid))
    return Programme(about["program_num"], about["pmt_pid"], about["streams"], video, video_pid,
                     audio_pid, sap_pid, units)
