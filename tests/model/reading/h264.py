"""Keyframes of H.264: the NAL units of an Annex B byte stream, the parameter sets met so far, and
whether a picture begins with an I or SI slice."""

from .bits import BitReader, Undecodable
from .h264_parameter_sets import PictureParameterSet, SequenceParameterSet
from .h264_slice_header import SI, I, read_slice_header

START_CODE = b"\0\0\1"
SLICE_UNIT, IDR_UNIT, SEQUENCE_SET_UNIT, PICTURE_SET_UNIT = 1, 5, 7, 8


def nal_units(data):
    """Each unit with its header byte, without the zero byte that belongs to the next start code.
    One whose forbidden_zero_bit is set is passed over."""
    code = data.find(START_CODE)
    while code >= 0:
        begin = code + len(START_CODE)
        code = data.find(START_CODE, begin)
        end = len(data) if code < 0 else code
        if code > begin and data[code - 1] == 0:
            end -= 1
        if end > begin and not data[begin] & 0x80:
            yield data[begin:end]


def rbsp_of(unit):
    """The unit without its header byte and its emulation_prevention_three_bytes."""
    parts = unit.split(b"\0\0\3")
    return b"\0\0".join(parts)[1:]


class H264Stream:
    """Parameter sets live as long as the stream: one that arrived with an earlier picture serves
    every later one."""

    def __init__(self):
        self.sequence_sets = {}
        self.picture_sets = {}
        self.width = self.height = 0

    def is_keyframe(self, data):
        """Takes in every parameter set on the way."""
        found = False
        for unit in nal_units(data):
            try:
                if self._take_unit(unit):
                    found = True
            except Undecodable:
                pass
        return found

    def _take_unit(self, unit):
        nal_ref_idc, nal_unit_type = unit[0] >> 5 & 3, unit[0] & 31
        if nal_unit_type in (SLICE_UNIT, IDR_UNIT):
            header = read_slice_header(BitReader(rbsp_of(unit)), nal_unit_type, nal_ref_idc,
                                       self.sequence_sets, self.picture_sets)
            return header.first_mb_in_slice == 0 and header.slice_type in (I, SI)
        if nal_unit_type == SEQUENCE_SET_UNIT:
            sps = SequenceParameterSet(BitReader(rbsp_of(unit)))
            self.sequence_sets[sps.id] = sps
            self.width, self.height = sps.picture_size()
        elif nal_unit_type == PICTURE_SET_UNIT:
            pps = PictureParameterSet(BitReader(rbsp_of(unit)), self.sequence_sets)
            self.picture_sets[pps.id] = pps
        return False
