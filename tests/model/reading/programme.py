"""Which programme is followed, and which of its streams. The first programme of the first good PAT
is kept for good; every PMT of it chooses anew."""

from . import tables
from .packet import PACKET_BYTES, PAT_PID, payload_begin, starts_unit
from .psi import SectionAssembly, decode_pmt, programmes_of, section_data

PAT_TABLE_ID = 0
PMT_TABLE_ID = 2

H264 = "H.264"
MPEG_VIDEO = "MPEG-1 or MPEG-2 video"
VIDEO_KINDS = {0x1B: H264, 0x01: MPEG_VIDEO, 0x02: MPEG_VIDEO}
AUDIO_STREAM_TYPES = (0x03, 0x04, 0x0F)


class Programme:
    """PIDs of 0 stand for none."""

    def __init__(self, options, say):
        self.options = options
        self.say = say
        self.assemblies = {PAT_PID: SectionAssembly()}
        self.tables = tables.FragmentTables()
        self.pmt_pid = 0
        self.has_pmt = False
        self.video_pid = self.audio_pid = self.second_audio_pid = 0
        self.video_kind = None

    @property
    def is_locked(self):
        return self.pmt_pid != 0

    def take_packet(self, stream, at, pid):
        """Feeds a packet of a PID that carries tables. True if it brought the lock or a PMT, which
        ends the pass."""
        payload = payload_begin(stream, at)
        if pid == PAT_PID and self.options.pat_nit_not_first and starts_unit(stream, at):
            tables.move_network_entry_last(stream, at, payload)
        if self.options.start_pat_pmt:
            self._keep_for_fragment_starts(bytes(stream[at:at + PACKET_BYTES]), pid)

        assembly = self.assemblies[pid]
        content = bytes(stream[payload:at + PACKET_BYTES])
        if starts_unit(stream, at):
            assembly.complete()
            section = assembly.take_ready()
            assembly.discard()
            assembly.begin(content)
        else:
            assembly.add(content)
            section = assembly.take_ready()
            if section:
                assembly.discard()
        return section is not None and self._take_section(pid, section)

    def _keep_for_fragment_starts(self, packet, pid):
        if pid == PAT_PID:
            self.tables.pat = packet
        elif pid == self.pmt_pid and not self.options.separate_streams:
            self.tables.pmt[tables.VIDEO] = packet

    def _take_section(self, pid, section):
        table_id, current_next_indicator = section[0], section[5] & 1
        if not current_next_indicator:
            return False
        if pid == PAT_PID:
            syntax_and_private_bit = section[1] & 0xC0
            return (table_id == PAT_TABLE_ID and syntax_and_private_bit == 0x80
                    and self._take_pat(section_data(section)))
        return pid == self.pmt_pid and table_id == PMT_TABLE_ID and self._take_pmt(section)

    def _take_pat(self, data):
        if self.is_locked:
            return False
        for number, pid in programmes_of(data):
            if number and pid:
                self.pmt_pid = pid
                self.say(b"PAT: Locking onto Program %04xh PMT %04xh\n" % (number, pid))
                self.assemblies[pid] = SectionAssembly()
                return True
        return False

    def _take_pmt(self, section):
        self.video_pid = self.audio_pid = self.second_audio_pid = 0
        decoded = decode_pmt(section_data(section))
        if decoded is None:
            return False
        self.has_pmt = True
        head, entries = decoded
        for entry in entries:
            rendition = self._choose(entry)
            if (rendition is not None and self.options.separate_streams
                    and len(head) - tables.PROGRAM_INFO_AT <= tables.LONGEST_PROGRAM_INFO):
                self.tables.pmt[rendition] = tables.rendition_pmt(
                    self.pmt_pid, section, head, entry)
        return True

    def _choose(self, entry):
        """The rendition that the stream was chosen for, or None."""
        if entry.stream_type in VIDEO_KINDS and not self.video_pid:
            self.video_pid = entry.pid
            self.video_kind = VIDEO_KINDS[entry.stream_type]
            return tables.VIDEO
        if entry.stream_type in AUDIO_STREAM_TYPES:
            if not self.audio_pid:
                self.audio_pid = entry.pid
                return tables.AUDIO
            if not self.second_audio_pid:
                self.second_audio_pid = entry.pid
                return tables.SECOND_AUDIO
        return None
