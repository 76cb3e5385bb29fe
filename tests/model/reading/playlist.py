"""Playlists, RFC 8216: the rolling media playlist of one output, and the master playlist."""

from collections import deque
from dataclasses import dataclass

from .languages import display_name

HEADER = b"#EXTM3U\n#EXT-X-VERSION:4\n"
# Fragments that stay on disk behind those listed, for players that are late.
UNLISTED = 3
CAPTION_CHANNELS = 4


def url_escape(name):
    return b"".join(b"%%%02X" % byte if byte < 0x21 or byte in b"%&?" else bytes([byte])
                    for byte in name)


@dataclass
class Entry:
    name: bytes
    sequence: int
    duration: float


class MediaPlaylist:
    def __init__(self, file_name, options):
        self.file_name = file_name
        self.base_url = options.base_url
        self.list_size = options.frag_backlog
        self.target_duration = options.frag_duration
        self.entries = deque()  # oldest first

    def take_surplus(self):
        """The oldest entries, taken off, that are neither listed nor kept for late players."""
        while len(self.entries) > self.list_size + UNLISTED:
            yield self.entries.popleft()

    def write(self, directory, say):
        listed = list(self.entries)[-self.list_size:]
        text = HEADER + b"#EXT-X-TARGETDURATION:%d\n" % self.target_duration
        if listed:
            text += b"#EXT-X-MEDIA-SEQUENCE:%d\n" % listed[0].sequence
        text += b"\n"
        warnings = b""
        for entry in listed:
            if entry.name:
                text += b"#EXTINF:%.3f,\n" % entry.duration
                text += self.base_url + url_escape(entry.name) + b"\n"
            else:
                warnings += (b"M3U8 warning: Fragment name is missing for segment %d '%s' "
                             b"(FIX THIS BUG)\n" % (entry.sequence, self.file_name))
            text += b"\n"
        if directory.replace(self.file_name, text):
            say(warnings)


class MasterPlaylist:
    """Names the variant, the audio renditions that are kept apart (empty names: none) and the
    subtitles."""

    def __init__(self, file_name, base_url, variant, audio, second_audio):
        self.file_name = file_name
        self.base_url = base_url
        self.variant = variant
        self.audio = audio
        self.second_audio = second_audio
        self.bandwidth = self.width = self.height = 0
        self.has_subtitles_group = False
        self.must_be_written = True

    def write_if_due(self, directory, subtitle_playlists):
        """subtitle_playlists: file names by language."""
        if self.must_be_written:
            self.must_be_written = False
            directory.replace(self.file_name, self._text(subtitle_playlists))

    def _text(self, subtitle_playlists):
        lines = []
        if not self.audio and not self.second_audio:
            lines.append(b"#EXT-X-INDEPENDENT-SEGMENTS")
        for channel in range(1, CAPTION_CHANNELS + 1):
            lines.append(b'#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="caps",NAME="CC%d",'
                         b'INSTREAM-ID="CC%d"' % (channel, channel)
                         + (b",AUTOSELECT=YES,DEFAULT=YES" if channel == 1 else b""))
        subtitles_group = b',GROUP-ID="subs"' if self.has_subtitles_group else b""
        for language, file_name in sorted(subtitle_playlists.items()):
            lines.append(b'#EXT-X-MEDIA:TYPE=SUBTITLES%s,NAME="%s",LANGUAGE="%s",URI="%s"' % (
                subtitles_group, display_name(language), language, self._uri(file_name)))
        if self.audio:
            lines.append(b'#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",AUTOSELECT=YES,DEFAULT=YES,'
                         b'LANGUAGE="eng",NAME="Main",URI="%s"' % self._uri(self.audio))
        if self.second_audio:
            lines.append(b'#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",AUTOSELECT=NO,DEFAULT=NO,'
                         b'LANGUAGE="spa",NAME="SAP",URI="%s"' % self._uri(self.second_audio))
        lines += [b"", self._variant_line(), self._uri(self.variant), b"", b""]
        return HEADER + b"\n".join(lines)

    def _variant_line(self):
        line = b'#EXT-X-STREAM-INF:BANDWIDTH=%d,CLOSED-CAPTIONS="caps"' % self.bandwidth
        if self.has_subtitles_group:
            line += b',SUBTITLES="subs"'
        if self.audio:
            line += b',AUDIO="aud"'
        if self.width and self.height:
            line += b",RESOLUTION=%dx%d" % (self.width, self.height)
        return line

    def _uri(self, file_name):
        return self.base_url + url_escape(file_name)
