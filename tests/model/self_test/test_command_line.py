import unittest

from .hand_made import pictures, run

REFUSED_SILENTLY = (
    ("--frag-duration", "0"), ("--frag-duration", "21"), ("--frag-duration", "x"),
    ("--frag-backlog", "1001"), ("--m3u8-name", "/x"), ("--m3u8-name", "x/"),
    ("--frag-name", "a..b"), ("--frag-name", ""), ("--frag-name",), ("--base-url", "x"))
ACCEPTED = (
    ("--frag-duration", "20"), ("--frag-duration", "5s"), ("--frag-backlog", "1000"),
    ("--m3u8-name", "sub/x.m3u8"), ("--m3u8-name", "/x", "--anon-sock"), ("--anon-sock", "-1"))
NO_INPUT = "Failed to refill until"


class CommandLine(unittest.TestCase):
    def test_any_number_of_dashes_asks_for_help(self):
        for argument in ("-h", "--h", "--help", "-help", "---help"):
            result = run(b"", argument)
            self.assertEqual((result.status, len(result.lines)), (1, 15), argument)
            self.assertTrue(result.lines[4].endswith("(name_%d.ts)"))

    def test_silent_refusals(self):
        for arguments in REFUSED_SILENTLY:
            result = run(b"", *arguments)
            self.assertEqual((result.status, result.lines), (1, []), arguments)

    def test_accepted_values(self):
        for arguments in ACCEPTED:
            result = run(b"", *arguments)
            self.assertEqual((result.status, result.lines), (1, [NO_INPUT]), arguments)

    def test_unknown_names_and_stray_arguments(self):
        for argument, line in (("--hel", "Unknown switch 'hel'"), ("-", "Unknown switch ''"),
                               ("x", "Unexpected arg")):
            result = run(b"", argument)
            self.assertEqual((result.status, result.lines), (1, [line]))

    def test_separate_streams_imply_tables_and_several_levels(self):
        result = run(b"", "--separate-streams")
        self.assertEqual(result.lines, [
            "Separate streams REQUIRES --start-pat-pmt option", NO_INPUT])
        result = run(b"", "--separate-streams", "--no-multilevel")
        self.assertEqual(len(result.lines), 3)
        self.assertFalse(result.options.no_multilevel)

    def test_a_descriptor_that_is_no_socket(self):
        result = run(pictures([0]), "--anon-sock", "9")
        self.assertEqual((result.status, result.lines), (0, []))


class ClearOld(unittest.TestCase):
    REMOVED = (b"ch1.m3u8", b"ch1.m3u8.av.m3u8", b"ch1.m3u8.sap.m3u8",
               b"ch1.m3u8.av.m3u8.en.vtt.m3u8", b"ch1.00000012.ts", b"ch1.v.00000012.ts",
               b"ch1.sap.7.ts.en-US.vtt", b"ch1..ts", b"ch1.v..ts")
    KEPT = (b"ch1.m3u8.bak", b"ch1.x.00000012.ts", b"ch1.00000012.ts.tmp", b"ch1.m3u8.v.m3u8x",
            b"ch1.ts")

    def test_removes_only_what_it_may_have_written(self):
        result = run(b"", "--clear-old-only", files=dict.fromkeys(self.REMOVED + self.KEPT, b"x"),
                     links=[b"ch1.00000013.ts"])
        self.assertEqual(result.status, 0)
        self.assertEqual(set(result.files), set(self.KEPT))
        self.assertTrue(result.directory.links)
        self.assertEqual(result.lines[:2], [
            "Removing old: ch1.m3u8", "Removing old: scanning directory . for ch1.m3u8"])
        self.assertIn("Removing old: ./ch1.m3u8.av.m3u8", result.lines)

    def test_says_where_it_looks(self):
        self.assertEqual(run(b"", "--clear-old-only").lines, [
            "Removing old: scanning directory . for ch1.m3u8",
            "Removing old: scanning directory . for ch1"])
