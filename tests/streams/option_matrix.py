"""Which options each stream is run with: those that matter for it, and for one stream every
combination."""

from itertools import product

from options import Options

DEFAULT = Options()
KEEP_ALL = Options(frag_backlog=1000)
TABLES = Options(start_pat_pmt=True)
NO_PADDING = Options(no_padding=True)
SEPARATE = Options(separate_streams=True, start_pat_pmt=True)
ALL_SEPARATE = Options(separate_streams=True, sap=True, start_pat_pmt=True)
ALL_SEPARATE_AND_LEAN = Options(separate_streams=True, sap=True, start_pat_pmt=True,
                                pat_nit_not_first=True, no_padding=True)


def _every_combination():
    """Of the options that change a file. What --separate-streams overrules with a warning, and
    --sap without it, is in once."""
    def switched(*names, **fixed):
        return [Options(**dict(zip(names, switches)), **fixed)
                for switches in product((False, True), repeat=len(names))]

    filters = ("pat_nit_not_first", "no_padding")
    return [*switched("start_pat_pmt", "no_multilevel", *filters),
            *switched("sap", *filters, separate_streams=True, start_pat_pmt=True),
            Options(sap=True),
            Options(separate_streams=True),
            Options(separate_streams=True, no_multilevel=True)]


RUNS = {
    "long": [DEFAULT, KEEP_ALL, ALL_SEPARATE],
    "b_frames": [DEFAULT, SEPARATE],
    "open_gop": [DEFAULT, SEPARATE],
    "constant_rate": [DEFAULT, NO_PADDING, ALL_SEPARATE_AND_LEAN],
    "every_option": _every_combination(),
    "network_entry_without_reserved_bits_stays_first":
        [Options(pat_nit_not_first=True), Options(start_pat_pmt=True, pat_nit_not_first=True)],
    "two_audio_streams": [DEFAULT, TABLES, ALL_SEPARATE],
    "mpeg_audio_first": [DEFAULT, SEPARATE, ALL_SEPARATE],
    "30000_pictures_in_1001_s": [DEFAULT, TABLES, SEPARATE,
                                 Options(start_pat_pmt=True, frag_duration=2),
                                 Options(frag_duration=20)],
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
