import unittest

from .hand_made import (AAC, AUDIO, FRAGMENT, SECOND, Stream, cuts_of, lines_of, pictures, run)

TARGET = 4 * SECOND
HALF_AN_HOUR = 1800 * SECOND


def durations(times, **how):
    return [duration for _, duration in cuts_of(run(pictures(times, **how)))[1:]]


class VideoCuts(unittest.TestCase):
    def test_keyframes_every_two_seconds(self):
        begin = 10 * SECOND
        cuts = cuts_of(run(pictures(range(begin, begin + 30 * SECOND, 2 * SECOND))))
        self.assertEqual(cuts[0], (begin, -1))
        self.assertEqual(cuts[1:], [(begin + k * 6 * SECOND, 6.0) for k in range(1, 5)])

    def test_the_end_of_the_window_does_not_cut(self):
        self.assertEqual(durations(range(0, 9 * TARGET, TARGET)), [8.0] * 4)
        self.assertEqual(durations([0, TARGET]), [])
        self.assertEqual(len(durations([0, TARGET + 1])), 1)

    def test_steps_back(self):
        begin = 10 * SECOND
        self.assertEqual(durations([begin, begin - SECOND]), [])
        result = run(pictures([begin, begin - 2 * SECOND]))
        self.assertEqual(cuts_of(result)[1:], [(begin - 2 * SECOND, 4.0)])
        self.assertEqual(result.cutter.window_end, begin + 2 * TARGET)

    def test_discontinuities(self):
        times = [0, SECOND, 2 * SECOND, HALF_AN_HOUR]
        self.assertEqual(durations(times, keyframes={0, 3}), [2.0])
        result = run(pictures([0, HALF_AN_HOUR]))
        self.assertEqual([duration for _, duration in cuts_of(result)], [-1, -1])
        self.assertEqual(lines_of(result, b"ch1.m3u8.av.m3u8"), [
            "#EXTM3U", "#EXT-X-VERSION:4", "#EXT-X-TARGETDURATION:4", "", ""])
        self.assertLessEqual({b"ch1.00000000.ts", b"ch1.00000001.ts"}, set(result.files))

    def test_pictures_before_the_first_keyframe_leave_an_entry_without_name(self):
        result = run(pictures([0, SECOND, 2 * SECOND], keyframes={2}))
        self.assertIn("M3U8 warning: Fragment name is missing for segment 0 'ch1.m3u8.av.m3u8' "
                      "(FIX THIS BUG)", result.lines)

    def test_a_clock_that_starts_at_zero(self):
        cutter = run(pictures([0])).cutter
        self.assertEqual((cutter.window_begin, cutter.window_end), (-SECOND, TARGET))

    def test_a_keyframe_without_pts(self):
        stream = Stream().tables()
        stream.picture(True, None)
        self.assertEqual(cuts_of(run(stream)), [])


class AudioCuts(unittest.TestCase):
    def stream_of(self, times, stream_id=0xC0):
        stream = Stream().tables(streams=((AAC, AUDIO),))
        for pts in times:
            stream.audio(pts, stream_id)
        return stream

    def test_forward(self):
        result = run(self.stream_of(range(0, 10 * SECOND, SECOND // 10)))
        self.assertEqual(cuts_of(result)[1:], [(369000, 4.1), (738000, 4.1)])
        self.assertEqual(lines_of(result, b"ch1.m3u8.av.m3u8")[5:7],
                         ["#EXTINF:4.100,", "ch1.00000000.ts"])

    def test_backward(self):
        result = run(self.stream_of([900000, 800000, 810000]))
        self.assertEqual(cuts_of(result)[1:], [(800000, 4.0)])

    def test_private_streams_do_not_cut(self):
        result = run(self.stream_of([0], stream_id=0xBD))
        self.assertEqual(cuts_of(result), [])
        self.assertNotIn(b"ch1.00000000.ts", result.files)


class Backlog(unittest.TestCase):
    def deleted(self, result):
        return [line for line in result.lines if line.startswith("Deleting")]

    def test_three_stay_behind_those_listed(self):
        result = run(pictures([k * FRAGMENT for k in range(7)]), "--frag-backlog", "1")
        self.assertEqual(self.deleted(result), ["Deleting old fragment ch1.00000000.ts",
                                                "Deleting old fragment ch1.00000001.ts"])
        self.assertIn("#EXT-X-MEDIA-SEQUENCE:5", lines_of(result, b"ch1.m3u8.av.m3u8"))

    def test_by_default(self):
        result = run(pictures([k * FRAGMENT for k in range(15)]))
        self.assertEqual(self.deleted(result), ["Deleting old fragment ch1.00000000.ts"])
        self.assertIn("#EXT-X-MEDIA-SEQUENCE:4", lines_of(result, b"ch1.m3u8.av.m3u8"))


class NeverCut(unittest.TestCase):
    def test_a_fragment_of_64_mib_ends_the_run(self):
        stream = pictures([0])
        stream.multiplex.padding(72000000 // 188)
        result = run(stream)
        self.assertEqual((result.status, result.lines[-2:]),
                         (2, ["HLS cutting is not happening", "I/O proc fail"]))
        self.assertGreaterEqual(len(result.files[b"ch1.00000000.ts"]), 1 << 26)
