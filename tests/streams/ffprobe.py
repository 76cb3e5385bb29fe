"""What ffprobe says about a stream."""

import json
import subprocess
from dataclasses import dataclass


@dataclass
class Picture:
    position: int  # of its first transport packet in the stream, bytes
    pts: int  # 90 kHz
    intra: bool
    slice_type: str  # I, P or B


@dataclass
class Programme:
    number: int
    pmt_pid: int
    video_pid: int
    audio_pid: int
    video: dict  # ffprobe's fields of the video stream
    pictures: list  # in stream order


def _ffprobe(*arguments):
    run = subprocess.run(["ffprobe", "-v", "error", "-of", "json", *arguments],
                         stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True)
    return json.loads(run.stdout)


def programme_of(stream):
    """The one programme of a stream that ffmpeg made."""
    about = _ffprobe("-show_programs", str(stream))["programs"][0]
    pid = {s["codec_type"]: int(s["id"], 16) for s in about["streams"]}
    video = next(s for s in about["streams"] if s["codec_type"] == "video")

    frames = _ffprobe("-select_streams", "v:0",
                      "-show_entries", "frame=pkt_pos,pts,pict_type", str(stream))["frames"]
    pictures = [Picture(int(f["pkt_pos"]), f["pts"], f["pict_type"] == "I", f["pict_type"])
                for f in frames]
    pictures.sort(key=lambda picture: picture.position)
    return Programme(about["program_num"], about["pmt_pid"], pid["video"], pid["audio"], video,
                     pictures)
