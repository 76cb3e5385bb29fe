"""Sequence and picture parameter sets: ITU-T H.264, 7.3.2.1, 7.3.2.2, E.1.1 and E.1.2. Only what
slice headers and the picture size need is kept; everything else is read and dropped."""

from .bits import Undecodable

PROFILES_WITH_CHROMA_FORMAT = frozenset(
    (100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135))
CHROMA_420, CHROMA_444 = 1, 3
EXTENDED_SAR = 255
UINT32 = 0xFFFFFFFF


class SequenceParameterSet:
    def __init__(self, bits):
        profile_idc = bits.u(8)
        bits.u(8)  # constraint flags
        bits.u(8)  # level_idc
        self.id = bits.ue(31)
        self.chroma_format_idc = CHROMA_420
        self.separate_colour_plane = 0
        if profile_idc in PROFILES_WITH_CHROMA_FORMAT:
            self._read_chroma_format(bits)
        self.frame_num_bits = bits.ue(12) + 4
        self._read_picture_order(bits)
        bits.ue()  # max_num_ref_frames
        bits.u(1)  # gaps_in_frame_num_value_allowed_flag
        self.width_in_mbs = bits.ue() + 1
        self.height_in_map_units = bits.ue() + 1
        self.frame_mbs_only = bits.u(1)
        if not self.frame_mbs_only:
            bits.u(1)  # mb_adaptive_frame_field_flag
        bits.u(1)  # direct_8x8_inference_flag
        self.crop_left = self.crop_right = self.crop_top = self.crop_bottom = 0
        if bits.u(1):
            self.crop_left, self.crop_right = bits.ue(), bits.ue()
            self.crop_top, self.crop_bottom = bits.ue(), bits.ue()
        if bits.u(1):
            skip_vui(bits)

    def _read_chroma_format(self, bits):
        self.chroma_format_idc = bits.ue(3)
        if self.chroma_format_idc == CHROMA_444:
            self.separate_colour_plane = bits.u(1)
        bits.ue()  # bit_depth_luma_minus8
        bits.ue()  # bit_depth_chroma_minus8
        bits.u(1)  # qpprime_y_zero_transform_bypass_flag
        if bits.u(1):
            skip_scaling_lists(bits, 12 if self.chroma_format_idc == CHROMA_444 else 8)

    def _read_picture_order(self, bits):
        self.pic_order_cnt_type = bits.ue(2)
        self.pic_order_cnt_lsb_bits = 0
        self.delta_pic_order_always_zero = 0
        if self.pic_order_cnt_type == 0:
            self.pic_order_cnt_lsb_bits = bits.ue(12) + 4
        elif self.pic_order_cnt_type == 1:
            self.delta_pic_order_always_zero = bits.u(1)
            bits.se()  # offset_for_non_ref_pic
            bits.se()  # offset_for_top_to_bottom_field
            for _ in range(bits.ue(255)):
                bits.se()  # offset_for_ref_frame

    @property
    def chroma_array_type(self):
        return 0 if self.separate_colour_plane else self.chroma_format_idc

    def picture_size(self):
        """Width and height without what is cropped: 7.4.2.1.1, (7-19) to (7-22). 0 if nothing is
        left."""
        rows_per_map_unit = 2 - self.frame_mbs_only
        crop_unit_x = 2 if self.chroma_array_type in (1, 2) else 1
        crop_unit_y = (2 if self.chroma_array_type == 1 else 1) * rows_per_map_unit
        width = 16 * self.width_in_mbs - crop_unit_x * (self.crop_left + self.crop_right)
        height = (16 * self.height_in_map_units * rows_per_map_unit
                  - crop_unit_y * (self.crop_top + self.crop_bottom))
        return tuple(size if 0 < size <= UINT32 else 0 for size in (width, height))


class PictureParameterSet:
    def __init__(self, bits, sequence_sets):
        self.id = bits.ue(255)
        self.sequence_set_id = bits.ue(31)
        self.entropy_coding_mode = bits.u(1)
        self.bottom_field_pic_order_present = bits.u(1)
        self._read_slice_groups(bits)
        self.num_ref_idx_l0_minus1 = bits.ue(31)
        self.num_ref_idx_l1_minus1 = bits.ue(31)
        self.weighted_pred = bits.u(1)
        self.weighted_bipred_idc = bits.u(2)
        bits.se()  # pic_init_qp_minus26
        bits.se()  # pic_init_qs_minus26
        bits.se()  # chroma_qp_index_offset
        self.deblocking_filter_control_present = bits.u(1)
        bits.u(1)  # constrained_intra_pred_flag
        self.redundant_pic_cnt_present = bits.u(1)
        if bits.more_rbsp_data():
            transform_8x8_mode = bits.u(1)
            if bits.u(1):
                sequence_set = sequence_sets.get(self.sequence_set_id)
                chroma = sequence_set.chroma_format_idc if sequence_set else CHROMA_420
                lists_8x8 = 6 if chroma == CHROMA_444 else 2
                skip_scaling_lists(bits, 6 + lists_8x8 * transform_8x8_mode)
            bits.se()  # second_chroma_qp_index_offset

    def _read_slice_groups(self, bits):
        self.num_slice_groups = bits.ue(7) + 1
        self.slice_group_map_type = 0
        self.slice_group_change_rate = 1
        if self.num_slice_groups == 1:
            return
        self.slice_group_map_type = bits.ue(6)
        if self.slice_group_map_type == 0:
            for _ in range(self.num_slice_groups):
                bits.ue()  # run_length_minus1
        elif self.slice_group_map_type == 2:
            for _ in range(self.num_slice_groups - 1):
                bits.ue()  # top_left
                bits.ue()  # bottom_right
        elif self.slice_group_map_type in (3, 4, 5):
            bits.u(1)  # slice_group_change_direction_flag
            self.slice_group_change_rate = bits.ue() + 1
        elif self.slice_group_map_type == 6:
            map_units = bits.ue() + 1
            id_bits = (self.num_slice_groups - 1).bit_length()
            bits.u(map_units * id_bits)  # slice_group_id


def skip_scaling_lists(bits, count):
    """The first six are of 16 coefficients, the others of 64."""
    for index in range(count):
        if bits.u(1):
            skip_scaling_list(bits, 16 if index < 6 else 64)


def skip_scaling_list(bits, size):
    """7.3.2.1.1.1"""
    last_scale = next_scale = 8
    for _ in range(size):
        if next_scale != 0:
            delta_scale = bits.se()
            if not -128 <= delta_scale <= 127:
                raise Undecodable
            next_scale = (last_scale + delta_scale) % 256
        if next_scale != 0:
            last_scale = next_scale


def skip_vui(bits):
    """E.1.1"""
    if bits.u(1):  # aspect_ratio_info_present_flag
        if bits.u(8) == EXTENDED_SAR:
            bits.u(32)  # sar_width, sar_height
    if bits.u(1):  # overscan_info_present_flag
        bits.u(1)
    if bits.u(1):  # video_signal_type_present_flag
        bits.u(4)  # video_format, video_full_range_flag
        if bits.u(1):  # colour_description_present_flag
            bits.u(24)
    if bits.u(1):  # chroma_loc_info_present_flag
        bits.ue()
        bits.ue()
    if bits.u(1):  # timing_info_present_flag
        bits.u(65)  # num_units_in_tick, time_scale, fixed_frame_rate_flag
    has_nal_hrd = bits.u(1)
    if has_nal_hrd:
        skip_hrd(bits)
    has_vcl_hrd = bits.u(1)
    if has_vcl_hrd:
        skip_hrd(bits)
    if has_nal_hrd or has_vcl_hrd:
        bits.u(1)  # low_delay_hrd_flag
    bits.u(1)  # pic_struct_present_flag
    if bits.u(1):  # bitstream_restriction_flag
        bits.u(1)  # motion_vectors_over_pic_boundaries_flag
        for _ in range(6):
            bits.ue()


def skip_hrd(bits):
    """E.1.2"""
    cpb_cnt = bits.ue(31) + 1
    bits.u(8)  # bit_rate_scale, cpb_size_scale
    for _ in range(cpb_cnt):
        bits.ue()  # bit_rate_value_minus1
        bits.ue()  # cpb_size_value_minus1
        bits.u(1)  # cbr_flag
    bits.u(20)  # three lengths, time_offset_length
