"""What must be true of a stream for a test on it to mean anything."""

from collections import Counter

from annexb import start_codes
from expect import expect
from transport_stream import CLOCK, PADDING_PID, PAT_PID, elementary_stream, packets_of, pids_of

SLICE, IDR_SLICE = 1, 5


def _h264_traits(stream, programme):
    codes = start_codes(elementary_stream(stream, programme.video_pid))
    lengths = Counter(length for length, _ in codes)
    kinds = Counter(kind for _, kind in codes)
    pictures = programme.units
    print(f"{kinds[SLICE] + kinds[IDR_SLICE]} slices ({kinds[IDR_SLICE]} IDR), start codes of "
          f"3 bytes {lengths[3]}, of 4 bytes {lengths[4]}")
    return {
        "long": pictures[-1].pts - pictures[0].pts > 590 * 90000,
        "cropped_1080p": programme.video["height"] % 16 != 0,
        "b_frames": any(picture.slice_type == "B" for picture in pictures),
        "open_gop": kinds[IDR_SLICE] == 1 and sum(p.may_cut for p in pictures) > 20,
        "slices": kinds[SLICE] + kinds[IDR_SLICE] == 4 * len(pictures),
        "interlaced": programme.video["field_order"] == "tt",
        "mp4_to_annexb": lengths[3] > 0 and lengths[4] > 0,
        "start_codes_of_3_bytes": lengths[4] == 0,
        "start_codes_of_4_bytes": lengths[3] == 0,
        "late_clock": pictures[0].pts > 600 * 90000,
    }


def _traits(stream, programme):
    units = programme.units
    codecs = [s["codec_name"] for s in programme.streams]
    pids = Counter(pids_of(stream))
    intra = sum(unit.slice_type == "I" for unit in units)
    may_cut = sum(unit.may_cut for unit in units)
    # Pictures that are shown before the I-picture that they follow.
    leading = any(unit.slice_type == "I" and after.slice_type == "B"
                  for unit, after in zip(units, units[1:]))
    first_pat = next(packets_of(stream, {PAT_PID})).payload
    wraps = any(unit.pts > CLOCK - 90000 for unit in units) and units[-1].pts < 60 * 90000
    steps = {after.pts - unit.pts for unit, after in zip(units, units[1:])}
    return {
        "large_first_picture": list(packets_of(stream, {PAT_PID}))[1].position > 557056,
        "constant_rate": pids[PADDING_PID] > 1000,
        "every_option": pids[PADDING_PID] > 1000 and pids[0x10] > 0 and pids[0x1001] > 0
                        and codecs == ["h264", "aac", "mp2"]
                        and b"\x00\x00\xe0\x10" in first_pat,
        "network_entry_without_reserved_bits_stays_first": b"\x00\x00\x00\x10" in first_pat,
        "two_audio_streams": codecs == ["h264", "aac", "aac"],
        "mpeg_audio_first": codecs == ["h264", "mp2", "aac"],
        "30000_pictures_in_1001_s": steps == {3003},
        "mpeg2_closed_gop": may_cut == intra and not leading,
        "mpeg2_open_gop": may_cut == intra and leading,
        "mpeg2_closed_gop_is_cut_without_its_headers_too": may_cut == intra and not leading,
        "mpeg2_open_gop_is_not_cut_without_its_headers": may_cut == (intra + 1) // 2 and leading,
        "five_programmes": sum(pids[0x1000 + n] > 0 for n in range(5)) == 5,
        "video_only_leaves_a_pat_in_each_audio_fragment": codecs == ["h264"],
        "audio_only_aac_leaves_the_video_playlist_empty": codecs == ["aac"],
        "audio_only_mp2_leaves_the_video_playlist_empty": codecs == ["mp2", "mp2"],
        "clock_that_wraps_cuts_at_the_next_keyframe": wraps and len(steps) == 2,
        "clock_that_wraps_among_b_frames_leaves_a_fragment_unlisted":
            wraps and max(steps) > CLOCK // 2,
        "audio_is_not_cut_again_once_the_clock_has_wrapped": wraps,
    }


def expect_traits(name, stream, programme):
    print(f"{name}: {len(stream)} bytes, {len(programme.units)} units to cut by, "
          f"first PTS {programme.units[0].pts}")
    traits = _traits(stream, programme)
    if name not in traits:
        traits = _h264_traits(stream, programme)
    expect(traits[name], f"the stream {name} is not what its name says")
