"""Which options each stream is run with: those that matter for it, and for one stream every
combination."""

from itertools import product

DEFAULT = ()
KEEP_ALL = ("--frag-backlog", "1000")
TABLES = ("--start-pat-pmt",)
NETWORK_LAST = ("--pat-nit-not-first",)
NO_PADDING = ("--no-padding",)
SEPARATE = ("--separate-streams", "--start-pat-pmt")
ALL_SEPARATE = (*SEPARATE, "--sap")
ALL_SEPARATE_AND_LEAN = (*ALL_SEPARATE, *NETWORK_LAST, *NO_PADDING)


def _every_combination():
    """Of the options that change a file. What --separate-streams overrules with a warning, and
    --sap without it, is in once."""
    def switched(*names, always=()):
        return [(*always, *(name for name, on in zip(names, switches) if on))
                for switches in product((False, True), repeat=len(names))]

    filters = (*NETWORK_LAST, *NO_PADDING)
    return [*switched(*TABLES, "--no-multilevel", *filters),
            *switched("--sap", *filters, always=SEPARATE),
            ("--sap",), ("--separate-streams",), ("--separate-streams", "--no-multilevel")]


RUNS = {
    "long": [DEFAULT, KEEP_ALL, ALL_SEPARATE],
    "b_frames": [DEFAULT, SEPARATE],
    "open_gop": [DEFAULT, SEPARATE],
    "constant_rate": [DEFAULT, NO_PADDING, ALL_SEPARATE_AND_LEAN],
    "every_option": _every_combination(),
    "network_entry_without_reserved_bits_stays_first": [NETWORK_LAST, (*TABLES, *NETWORK_LAST)],
    "two_audio_streams": [DEFAULT, TABLES, ALL_SEPARATE],
    "mpeg_audio_first": [DEFAULT, SEPARATE, ALL_SEPARATE],
    "30000_pictures_in_1001_s": [DEFAULT, TABLES, SEPARATE, (*TABLES, "--frag-duration", "2"),
                                 ("--frag-duration", "20")],
    "mpeg2_closed_gop": [DEFAULT, TABLES, SEPARATE],
    "mpeg2_open_gop": [DEFAULT, TABLES, ALL_SEPARATE],
    "five_programmes": [DEFAULT, TABLES, ALL_SEPARATE],
    "video_only_leaves_a_pat_in_each_audio_fragment": [DEFAULT, TABLES, SEPARATE, ALL_SEPARATE],
    "audio_only_aac_leaves_the_video_playlist_empty": [DEFAULT, TABLES, SEPARATE],
    "audio_only_mp2_leaves_the_video_playlist_empty": [DEFAULT, TABLES, SEPARATE, ALL_SEPARATE],
    "clock_that_wraps_cuts_at_the_next_keyframe": [DEFAULT, TABLES, ALL_SEPARATE],
    "clock_that_wraps_among_b_frames_leaves_a_fragment_unlisted": [DEFAULT, ALL_SEPARATE],
    "audio_is_not_cut_again_once_the_clock_has_wrapped": [DEFAULT, SEPARATE],
}


def runs_of(name):
    return RUNS.get(name, [DEFAULT])
