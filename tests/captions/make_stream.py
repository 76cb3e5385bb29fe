"""Test streams of ffmpeg's with captions in them."""

import subprocess

import cea608
import transport

FRAME_RATE = (30000, 1001)


def ffmpeg_stream(path, seconds, codec, offset_s=0):
    """A picture that moves, with B pictures, and a tone; the same bytes however many cores there
    are."""
    video = {"h264": ["libx264", "-preset", "ultrafast", "-bf", "3", "-g", "30", "-threads", "1"],
             "mpeg2": ["mpeg2video", "-bf", "2", "-g", "15"]}[codec]
    subprocess.run(
        ["ffmpeg", "-nostdin", "-v", "error", "-y",
         "-f", "lavfi", "-i", f"testsrc2=size=320x180:rate={FRAME_RATE[0]}/{FRAME_RATE[1]}",
         "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=48000", "-t", str(seconds),
         "-c:v", *video, "-pix_fmt", "yuv420p", "-b:v", "600k", "-c:a", "mp2", "-b:a", "64k",
         "-output_ts_offset", str(offset_s), "-f", "mpegts", str(path)], check=True)
    return path.read_bytes()


def is_slice(codec):
    if codec == "h264":
        return lambda code: code & 0x1F in (1, 5)
    return lambda code: 1 <= code <= 0xAF


def with_captions(stream, codec, schedule, video_descriptors=b"", streams=b"", more_units=None):
    """The stream with the schedule's pairs in its pictures. Returns it, and the presentation time
    of its first picture. `more_units`: a function of a picture's time that gives units to put
    before it."""
    units = transport.units_of(stream)
    pmt_pid = next((u.data[1 + u.data[0] + 10] & 0x1F) << 8 | u.data[1 + u.data[0] + 11]
                   for u in units if u.pid == 0)
    pictures = [u for u in units if transport.has_pes(u) and u.data[3] == 0xE0]
    start = transport.pts_of(pictures[0])

    def ticks_of(picture):  # from the first one on, also where the clock wraps
        return (transport.pts_of(picture) - start + transport.CLOCK // 2) % transport.CLOCK

    pictures.sort(key=ticks_of)
    first = transport.pts_of(pictures[0])
    for picture in pictures:
        seconds = (transport.pts_of(picture) - first) % transport.CLOCK / 90000
        pairs = schedule.pairs_of_picture(seconds)
        data = (cea608.sei(pairs) if codec == "h264" else
                b"\0\0\1\xB2" + cea608.user_data(pairs))
        transport.insert_into_picture(picture, data, is_slice(codec))

    muxer = transport.Muxer()
    out = bytearray()
    for unit in units:
        if unit.pid == pmt_pid:
            unit = transport.map_with(unit, video_descriptors, streams)
        if more_units and transport.pts_of(unit) is not None and unit.data[3] == 0xE0:
            seconds = (transport.pts_of(unit) - first) % transport.CLOCK / 90000
            for more in more_units(seconds, first):
                out += muxer.packets(more)
        out += muxer.packets(unit)
    return bytes(out), first
