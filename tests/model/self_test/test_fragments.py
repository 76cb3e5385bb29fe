import unittest

from generator.multiplex import PACKET_BYTES
from reading.packet import PADDING_PID, PAT_PID, pid_of
from reading.playlist import url_escape
from reading.psi import crc32

from .hand_made import (AAC, AUDIO, FRAGMENT, H264, MPEG_AUDIO, OTHER, PMT, SECOND_AUDIO, VIDEO,
                        VIDEO_AND_AUDIO, Stream, lines_of, pictures, run)

THREE = [0, FRAGMENT, 2 * FRAGMENT + 1]


def fragment_names(count, tag=""):
    return [f"ch1{tag}.{number:08d}.ts".encode() for number in range(count)]


def pids_in(fragment):
    return [pid_of(fragment, at) for at in range(0, len(fragment), PACKET_BYTES)]


def section_in(packet):
    return packet[5:5 + 3 + packet[7]]


class Fragments(unittest.TestCase):
    def test_each_begins_with_the_packet_of_its_keyframe(self):
        result = run(pictures(THREE))
        for name in fragment_names(3):
            fragment = result.files[name]
            self.assertEqual((pid_of(fragment, 0), len(fragment) % PACKET_BYTES), (VIDEO, 0))

    def test_padding(self):
        first = fragment_names(1)[0]
        self.assertIn(PADDING_PID, pids_in(run(pictures([0])).files[first]))
        self.assertNotIn(PADDING_PID, pids_in(run(pictures([0]), "--no-padding").files[first]))

    def test_a_packet_that_cannot_be_decoded_follows_the_one_before_it(self):
        stream = pictures([0])
        stream.raw(b"\x47\x01\x55\x00" + b"\x11" * 184)
        self.assertIn(b"\x47\x01\x55\x00", run(stream).files[fragment_names(1)[0]])

    def test_a_folder_in_the_way_uses_up_a_number(self):
        result = run(pictures([0, FRAGMENT]), folders=[b"ch1.00000001.ts"])
        self.assertEqual(result.status, 0)
        self.assertIn(b"ch1.00000002.ts", result.files)

    def test_no_folder_for_them(self):
        result = run(pictures([0]), "--frag-name", "no/f")
        self.assertEqual((result.status, result.lines[-2:]),
                         (2, ["HLS out write error", "I/O proc fail"]))

    def test_separate_streams_are_numbered_alike(self):
        result = run(pictures(THREE, with_audio=True), "--separate-streams")
        self.assertLessEqual({b"ch1.v.00000002.ts", b"ch1.a.00000002.ts"}, set(result.files))
        self.assertNotIn(b"ch1.sap.00000000.ts", result.files)
        self.assertIn(b"ch1.m3u8.sap.m3u8", result.files)


class Tables(unittest.TestCase):
    def test_fragments_begin_with_them(self):
        result = run(pictures(THREE), "--start-pat-pmt")
        for number, name in enumerate(fragment_names(3)):
            fragment = result.files[name]
            pids = pids_in(fragment)
            self.assertEqual(pids[:2], [PAT_PID, PMT])
            self.assertEqual([fragment[at + 3] & 15 for at in (0, PACKET_BYTES)], [number] * 2)
            self.assertFalse({PAT_PID, PMT} & set(pids[2:]))

    def test_one_counter_serves_all_renditions(self):
        streams = ((H264, VIDEO), (AAC, AUDIO), (MPEG_AUDIO, SECOND_AUDIO))
        result = run(pictures([0, FRAGMENT], with_audio=True, streams=streams),
                     "--separate-streams", "--sap")
        fragment = result.files[b"ch1.sap.00000001.ts"]
        self.assertEqual(len(fragment), 2 * PACKET_BYTES)
        pmt = fragment[PACKET_BYTES:]
        self.assertEqual(pmt[3] & 15, 5)
        self.assertEqual(crc32(section_in(pmt)), 0)
        self.assertEqual(section_in(pmt)[8:10], (0xE000 | SECOND_AUDIO).to_bytes(2, "big"))

    def test_a_long_programme_info_is_left_alone(self):
        for length, pids in ((79, [PAT_PID, PMT]), (80, [PAT_PID, VIDEO])):
            stream = Stream().tables(program_info_length=length)
            stream.picture(True, 0)
            result = run(stream, "--separate-streams")
            self.assertEqual(pids_in(result.files[b"ch1.v.00000000.ts"])[:2], pids)

    def test_a_table_that_does_not_fit_aborts(self):
        for length, status in ((162, 0), (163, "abort")):
            stream = Stream().tables(streams=((H264, VIDEO, b"d" * length), (AAC, AUDIO)))
            stream.picture(True, 0)
            result = run(stream, "--separate-streams")
            self.assertEqual(result.status, status)
        self.assertTrue(result.lines[-1].endswith("Assertion `p <= f' failed."))

    def test_the_network_entry_moves_to_the_end(self):
        programmes = ((0, 0x10), (1, PMT), (2, OTHER))
        stream = Stream().tables(programmes)
        stream.picture(True, 0)
        stream.pat(programmes)
        result = run(stream, "--pat-nit-not-first")
        self.assertIn("PAT: Locking onto Program 0001h PMT 0100h", result.lines)
        fragment = result.files[fragment_names(1)[0]]
        pat = fragment[pids_in(fragment).index(PAT_PID) * PACKET_BYTES:]
        self.assertEqual(crc32(section_in(pat)), 0)
        self.assertEqual(section_in(pat)[8:20], b"\0\1\xe1\0\0\2\xe2\0\0\0\xe0\x10")


class Playlists(unittest.TestCase):
    def test_media_playlist(self):
        result = run(pictures(THREE))
        self.assertEqual(lines_of(result, b"ch1.m3u8.av.m3u8"), [
            "#EXTM3U", "#EXT-X-VERSION:4", "#EXT-X-TARGETDURATION:4", "#EXT-X-MEDIA-SEQUENCE:0", "",
            "#EXTINF:4.000,", "ch1.00000000.ts", "", "#EXTINF:4.000,", "ch1.00000001.ts", "", ""])

    def test_the_playlist_without_name_leaves_its_temporary_file(self):
        self.assertTrue(run(pictures(THREE)).files[b".tmp"].startswith(b"#EXTM3U"))

    def test_bandwidth_and_size(self):
        result = run(pictures(THREE, size=60000))
        last = len(result.files[b"ch1.00000001.ts"])
        bandwidth = int(last * 8.0 / ((THREE[2] - THREE[1]) / 90000))
        self.assertIn(f'#EXT-X-STREAM-INF:BANDWIDTH={bandwidth},CLOSED-CAPTIONS="caps",'
                      "RESOLUTION=1920x1080", lines_of(result, b"ch1.m3u8"))

    def first_master(self, *arguments):
        result = run(pictures(THREE, with_audio=True, streams=VIDEO_AND_AUDIO), *arguments)
        texts = [text for name, text in result.directory.replaced if name == b"ch1.m3u8"]
        return texts[0].decode().split("\n")

    def test_master_playlist(self):
        caption = ('#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="caps",NAME="CC{0}",'
                   'INSTREAM-ID="CC{0}"')
        self.assertEqual(self.first_master("--base-url", "u?&/"), [
            "#EXTM3U", "#EXT-X-VERSION:4", "#EXT-X-INDEPENDENT-SEGMENTS",
            caption.format(1) + ",AUTOSELECT=YES,DEFAULT=YES",
            *(caption.format(channel) for channel in (2, 3, 4)),
            "", '#EXT-X-STREAM-INF:BANDWIDTH=0,CLOSED-CAPTIONS="caps"', "u?&/ch1.m3u8.av.m3u8",
            "", ""])

    def test_audio_renditions(self):
        lines = self.first_master("--separate-streams", "--sap")
        self.assertNotIn("#EXT-X-INDEPENDENT-SEGMENTS", lines)
        self.assertEqual(lines[6:10], [
            '#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",AUTOSELECT=YES,DEFAULT=YES,LANGUAGE="eng",'
            'NAME="Main",URI="ch1.m3u8.a.m3u8"',
            '#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",AUTOSELECT=NO,DEFAULT=NO,LANGUAGE="spa",'
            'NAME="SAP",URI="ch1.m3u8.sap.m3u8"',
            "", '#EXT-X-STREAM-INF:BANDWIDTH=0,CLOSED-CAPTIONS="caps",AUDIO="aud"'])

    def test_one_level(self):
        result = run(pictures(THREE), "--no-multilevel")
        self.assertIn("ch1.00000000.ts", lines_of(result, b"ch1.m3u8"))

    def test_escapes(self):
        self.assertEqual(url_escape(b'a b&c?d%e/\x7f\xc3"\n'), b'a%20b%26c%3Fd%25e/\x7f\xc3"%0A')
