import unittest

from generator.programme_tables import section
from reading.window import Window

from .hand_made import (AAC, AUDIO, H264, MPEG2_VIDEO, MPEG_AUDIO, OTHER, PACKET_BYTES, PMT,
                        PRIVATE, SECOND, SECOND_AUDIO, VIDEO, Stream, pictures, pmt_of, run)

FIRST_FILL = 2 << 20


class Input(unittest.TestCase):
    def test_first_fill(self):
        result = run(b"x" * (FIRST_FILL - 1))
        self.assertEqual((result.status, result.lines), (1, ["Failed to refill until"]))
        self.assertEqual(run(pictures([0]).data()[:FIRST_FILL]).lines[-1], "Stream EOF")

    def test_tables_too_late(self):
        stream = Stream()
        stream.multiplex.padding(557056 // PACKET_BYTES)
        result = run(stream.tables())
        self.assertEqual((result.status, result.lines), (2, []))
        self.assertEqual(list(result.files), [b"ch1.m3u8"])

    def test_nothing_to_follow(self):
        result = run(Stream().tables(streams=((PRIVATE, OTHER),)))
        self.assertEqual((result.status, result.lines[-1]), (1, "Not enough to HLS chop by"))

    def test_garbage_before_the_first_packet(self):
        stream = pictures([0]).data()
        self.assertEqual(run(bytes(300) + stream).status, 0)
        result = run(b"\x47" + bytes(300) + stream)
        self.assertEqual((result.status, result.lines), (1, ["Failed to sync to MPEG TS"]))

    def test_garbage_within_the_stream(self):
        stream = pictures([0, SECOND])
        stream.multiplex.padding(3000)
        stream.raw(b"\x11" * 57)
        stream.multiplex.padding(10000)
        result = run(stream)
        self.assertEqual((result.status, result.lines[-1]), (0, "Stream EOF"))


class InputWindow(unittest.TestCase):
    MIB = 1 << 20

    def test_what_a_read_brings(self):
        window = Window(bytearray(20 * self.MIB))
        self.assertTrue(window.first_fill())
        self.assertEqual(window.end, 2 * self.MIB)
        window.begin = self.MIB
        self.assertTrue(window.refill(self.MIB))
        self.assertEqual(window.end, 2 * self.MIB, "enough is buffered")
        self.assertTrue(window.refill(self.MIB + 1))
        self.assertEqual(window.end, 8 * self.MIB)

    def test_moved_when_the_largest_request_would_not_fit(self):
        window = Window(bytearray(20 * self.MIB))
        window.refill(8 * self.MIB)
        for consumed, origin in ((6 * self.MIB, 0), (6 * self.MIB + 1, 6 * self.MIB + 1)):
            window.begin = consumed
            window.refill(self.MIB)
            self.assertEqual((window.origin, window.end), (origin, 8 * self.MIB))
        window.refill(2 * self.MIB)
        self.assertEqual(window.end, 14 * self.MIB + 1)

    def test_the_end_of_the_input(self):
        window = Window(bytearray(3 * self.MIB))
        window.first_fill()
        self.assertTrue(window.refill(3 * self.MIB))
        self.assertFalse(window.at_end_of_input)
        self.assertFalse(window.refill(3 * self.MIB + 1))
        self.assertTrue(window.at_end_of_input)


class Programme(unittest.TestCase):
    def test_the_first_lock_is_kept(self):
        stream = pictures([0])
        for _ in range(2):
            stream.pat(((9, 0x500),))
        result = run(stream)
        self.assertEqual(result.programme.pmt_pid, PMT)
        self.assertEqual(sum(line.startswith("PAT:") for line in result.lines), 1)

    def test_choice_of_streams(self):
        result = run(Stream().tables(streams=(
            (AAC, AUDIO), (AAC, SECOND_AUDIO), (MPEG_AUDIO, 0x180), (MPEG2_VIDEO, 0x181),
            (H264, VIDEO))))
        programme = result.programme
        self.assertEqual((programme.audio_pid, programme.second_audio_pid, programme.video_pid),
                         (AUDIO, SECOND_AUDIO, 0x181))

    def test_a_broken_section_changes_nothing(self):
        stream = Stream()
        for _ in range(3):
            stream.pat(((9, 0x500),), is_intact=False)
        stream.tables()
        self.assertEqual(run(stream).programme.pmt_pid, PMT)

    def test_a_table_of_one_packet_counts_with_the_next(self):
        stream = Stream()
        stream.pat()
        result = run(stream)
        self.assertEqual((result.status, result.lines), (2, []))

    def test_a_table_of_two_packets_counts_at_once(self):
        stream = Stream()
        stream.pat()
        stream.pat()
        stream.multiplex.section(PMT, pmt_of(((PRIVATE, 0x180, b"x" * 200), (H264, VIDEO))))
        stream.picture(True, 0)
        self.assertEqual(len(run(stream).cutter.cuts), 1)

    def test_a_table_whose_loop_does_not_end_with_it(self):
        stream = Stream()
        stream.pat()
        stream.pat()
        for _ in range(2):
            stream.multiplex.section(PMT, section(2, 1, 0, b"\xe1\x01\xf0\0\x1b\xe1\x01\xf0\x05"))
        result = run(stream)
        self.assertEqual(result.status, 2)
        self.assertFalse(result.programme.has_pmt)
