import unittest

from reading.captions import UINT64

from .hand_made import SECOND, Stream, cue, lines_of, run

ENGLISH = b"ch1.00000000.ts.eng.vtt"
FIRST_SERVICE = b"ch1.00000000.ts.v0.vtt"


def many_passes(times, keyframes=None):
    """A PMT before every picture ends the pass there, so that every caption is taken in early."""
    stream = Stream().tables()
    for index, pts in enumerate(times):
        stream.pmt()
        stream.picture(keyframes is None or index in keyframes, pts)
    return stream


def a_picture_every_second():
    return many_passes(range(0, 40 * SECOND, SECOND), keyframes=range(0, 40, 5))


class Intake(unittest.TestCase):
    def run_with(self, captions, *arguments, **how):
        return run(many_passes(range(0, 10 * SECOND, SECOND // 10)), *arguments,
                   captions=captions, **how)

    def test_services_and_languages(self):
        mistyped, unfinished, foreign = cue(0), cue(0, language=b"de"), cue(0, language=b"de")
        mistyped.pairs[1] = (b"start", UINT64, 0)
        unfinished.status = 1
        foreign.command = b"vttx"
        result = self.run_with([cue(0, service=0), cue(0, service=257), mistyped,
                                cue(0, language=b"eng"), unfinished, foreign])
        self.assertEqual(result.lines.count("Bad service -1"), 2)
        self.assertIn("Unhandled nv 'start' '0'", result.lines)
        self.assertEqual([line for line in result.lines if line.startswith("New")],
                         ["New language 'v0'", "New language 'eng'"])

    def test_one_level_keeps_no_cues(self):
        result = self.run_with([cue(0)], "--no-multilevel")
        self.assertIn("New language 'v0'", result.lines)
        self.assertFalse(result.intake.queues[b"v0"])

    def test_overflow(self):
        result = run(many_passes(range(200), keyframes=()), captions=[cue(0)] * 131)
        self.assertEqual(len(result.intake.queues[b"v0"]), 129)
        self.assertEqual(result.lines.count("VTT queue 'v0' overflow by 1"), 2)

    def test_a_lost_socket_ends_the_run_once_all_is_taken(self):
        result = self.run_with([cue(0)], hangs_up=True)
        self.assertEqual(result.status, 1)
        self.assertIn("New language 'v0'", result.lines)


class Webvtt(unittest.TestCase):
    def cues_in(self, name, *captions):
        self.result = run(a_picture_every_second(), captions=captions)
        return lines_of(self.result, name)

    def test_cues_follow_one_another(self):
        text = self.cues_in(
            ENGLISH,
            cue(SECOND, 0, 2000, text=b"a\r\nb", language=b"eng", settings=b"line:1"),
            cue(SECOND, 0, 2000, text=b"a\n\nb\n", language=b"eng"),
            cue(5 * SECOND + 9000, 0, 10, text=b"", language=b"eng"),
            cue(8000000000, 0, 1000, text=b"far", language=b"eng"))
        self.assertEqual(text, [
            "WEBVTT", "X-TIMESTAMP-MAP=MPEGTS:0,LOCAL:0:00:00.000", "Kind: captions",
            "Language: eng", "",
            "0:00:01.000 --> 0:00:03.000 line:1", "a", "b", "",
            # Begins where the first ends, and ends earlier by half of what it was late.
            "0:00:03.000 --> 0:00:04.000", "a", " ", "b", "",
            "0:00:05.100 --> 0:00:05.133", "",
            # Its time makes no sense, so it is put at the fragment's beginning, and so behind.
            "0:00:05.133 --> 0:00:05.166", "far", "", ""])
        self.assertIn("Timestamp mismatch 16589934592 0", self.result.lines)

    def test_fragments_without_cues(self):
        self.cues_in(ENGLISH, cue(0, language=b"eng"))
        self.assertIn("WebVTT language fragment 'eng' never got any events, writing empty file",
                      self.result.lines)
        self.assertEqual(lines_of(self.result, b"ch1.00000001.ts.eng.vtt"),
                         ["WEBVTT", "Kind: captions", "Language: eng", "", ""])

    def test_master_playlist(self):
        self.assertEqual(self.cues_in(FIRST_SERVICE, cue(0), cue(0, service=4),
                                      cue(0, language=b"eng"))[2:4], ["Kind: captions", ""])
        self.assertIn(b"ch1.m3u8.av.m3u8.eng.vtt.m3u8", self.result.files)
        master = self.result.files[b"ch1.m3u8"].decode()
        self.assertIn(',SUBTITLES="subs"', master)
        for language, name in (("v0", "Primary"), ("v3", "Secondary 3"), ("eng", "English")):
            self.assertIn(f'#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="{name}",'
                          f'LANGUAGE="{language}"', master)

    def test_short_gaps_are_closed(self):
        text = self.cues_in(FIRST_SERVICE, cue(0, 0, 1000), cue(11 * SECOND // 10, 0, 500))
        self.assertIn("0:00:01.000 --> 0:00:01.500", text)

    def test_a_cue_without_end_waits_for_the_next(self):
        text = self.cues_in(FIRST_SERVICE, cue(0, 0, 9000, now=-1))
        self.assertEqual(len(text), 5)
        self.assertEqual(len(self.result.intake.queues[b"v0"]), 1)
        text = self.cues_in(FIRST_SERVICE, cue(0, 0, 9000, now=-1),
                            cue(2 * SECOND, 2000, 3000))
        self.assertIn("0:00:00.000 --> 0:00:02.000", text)

    def test_times_around_the_wrap_of_the_clock(self):
        begin = (1 << 33) - SECOND
        result = run(many_passes([begin, begin + 1], keyframes={0}), captions=[cue(0), cue(0)])
        self.assertFalse([line for line in result.lines if "mismatch" in line])
