"""All renditions of a run, and the master playlist that names them."""

from . import tables
from .output import Output
from .playlist import MasterPlaylist, MediaPlaylist


class Bundle:
    """Without separate streams the audio outputs exist all the same; they have no fragments, and
    their playlist has no name."""

    def __init__(self, options, directory, say, fragment_tables):
        self.options = options
        self.directory = directory
        self.say = say
        playlist_names, base_names = _names(options)
        self.video, self.audio, self.second_audio = (
            Output(base_name, MediaPlaylist(playlist_name, options), directory, say,
                   first_packets=_first_packets(options, fragment_tables, rendition))
            for base_name, playlist_name, rendition in zip(
                base_names, playlist_names,
                (tables.VIDEO, tables.AUDIO, tables.SECOND_AUDIO)))
        self.subtitles = {}  # outputs by language
        self.master = None
        if not options.no_multilevel:
            video, audio, second_audio = playlist_names
            self.master = MasterPlaylist(options.m3u8_name, options.base_url, video, audio,
                                         second_audio if options.sap else b"")

    @property
    def media_outputs(self):
        return self.video, self.audio, self.second_audio

    def add_subtitles(self, language):
        """Numbers its fragments like the video's from the first one on."""
        playlist = MediaPlaylist(
            self.video.playlist.file_name + b"." + language + b".vtt.m3u8", self.options)
        output = Output(self.video.base_name, playlist, self.directory, self.say,
                        suffix=b"." + language + b".vtt")
        output.next_number = self.video.file_number
        self.subtitles[language] = output
        self.master.must_be_written = True

    def subtitles_in_order(self):
        return sorted(self.subtitles.items())

    def write_master_if_due(self):
        if self.master:
            self.master.write_if_due(self.directory, {
                language: output.playlist.file_name
                for language, output in self.subtitles.items()})

    def end(self):
        for output in reversed(self.media_outputs):
            output.end()
        for _, output in self.subtitles_in_order():
            output.end()


def _names(options):
    """Names of the three media playlists, and what their fragments' names begin with."""
    playlist, fragment = options.m3u8_name, options.frag_name
    if options.no_multilevel:
        return (playlist, b"", b""), (fragment,) * 3
    if options.separate_streams:
        tags = (b".v", b".a", b".sap")
        return tuple(playlist + tag + b".m3u8" for tag in tags), tuple(fragment + t for t in tags)
    return (playlist + b".av.m3u8", b"", b""), (fragment,) * 3


def _first_packets(options, fragment_tables, rendition):
    if not options.start_pat_pmt:
        return None
    return lambda: fragment_tables.packets_for(rendition)
