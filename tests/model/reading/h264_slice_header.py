"""The slice header, ITU-T H.264, 7.3.3: of interest are where the slice begins and its type, but a
header counts only if the whole of it can be read."""

from dataclasses import dataclass

from .bits import Undecodable

P, B, I, SP, SI = range(5)
IDR_UNIT = 5


@dataclass
class SliceHeader:
    first_mb_in_slice: int
    slice_type: int


def read_slice_header(bits, nal_unit_type, nal_ref_idc, sequence_sets, picture_sets):
    first_mb_in_slice = bits.ue()
    slice_type = bits.ue(9) % 5
    pps = picture_sets.get(bits.ue(255))
    sps = pps and sequence_sets.get(pps.sequence_set_id)
    if not sps:
        raise Undecodable
    if sps.separate_colour_plane:
        bits.u(2)  # colour_plane_id
    bits.u(sps.frame_num_bits)
    is_field = not sps.frame_mbs_only and bits.u(1)
    if is_field:
        bits.u(1)  # bottom_field_flag
    if nal_unit_type == IDR_UNIT:
        bits.ue()  # idr_pic_id
    _skip_picture_order(bits, sps, has_bottom=pps.bottom_field_pic_order_present and not is_field)
    if pps.redundant_pic_cnt_present:
        bits.ue()  # redundant_pic_cnt

    if slice_type == B:
        bits.u(1)  # direct_spatial_mv_pred_flag
    ref_counts = _ref_counts(bits, slice_type, pps)
    for _ in ref_counts:
        _skip_ref_pic_list_modification(bits)
    if ((pps.weighted_pred and slice_type in (P, SP))
            or (pps.weighted_bipred_idc == 1 and slice_type == B)):
        _skip_pred_weight_table(bits, sps.chroma_array_type, ref_counts)
    if nal_ref_idc != 0:
        _skip_dec_ref_pic_marking(bits, nal_unit_type)

    if pps.entropy_coding_mode and slice_type not in (I, SI):
        bits.ue()  # cabac_init_idc
    bits.se()  # slice_qp_delta
    if slice_type == SP:
        bits.u(1)  # sp_for_switch_flag
    if slice_type in (SP, SI):
        bits.se()  # slice_qs_delta
    if pps.deblocking_filter_control_present and bits.ue() != 1:
        bits.se()  # slice_alpha_c0_offset_div2
        bits.se()  # slice_beta_offset_div2
    if pps.num_slice_groups > 1 and pps.slice_group_map_type in (3, 4, 5):
        bits.u(_slice_group_change_cycle_bits(sps, pps))
    return SliceHeader(first_mb_in_slice, slice_type)


def _skip_picture_order(bits, sps, has_bottom):
    if sps.pic_order_cnt_type == 0:
        bits.u(sps.pic_order_cnt_lsb_bits)
        if has_bottom:
            bits.se()  # delta_pic_order_cnt_bottom
    elif sps.pic_order_cnt_type == 1 and not sps.delta_pic_order_always_zero:
        bits.se()  # delta_pic_order_cnt[0]
        if has_bottom:
            bits.se()  # delta_pic_order_cnt[1]


def _ref_counts(bits, slice_type, pps):
    """How many reference indices each list of this slice has: one list, two for B, none for I."""
    if slice_type in (I, SI):
        return []
    defaults = [pps.num_ref_idx_l0_minus1, pps.num_ref_idx_l1_minus1]
    lists = defaults if slice_type == B else defaults[:1]
    if bits.u(1):  # num_ref_idx_active_override_flag
        lists = [bits.ue(31) for _ in lists]
    return [minus1 + 1 for minus1 in lists]


def _skip_ref_pic_list_modification(bits):
    """7.3.3.1, one list"""
    if bits.u(1):
        while bits.ue(3) != 3:  # modification_of_pic_nums_idc
            bits.ue()


def _skip_pred_weight_table(bits, chroma_array_type, ref_counts):
    """7.3.3.2"""
    bits.ue(7)  # luma_log2_weight_denom
    if chroma_array_type != 0:
        bits.ue(7)  # chroma_log2_weight_denom
    for count in ref_counts:
        for _ in range(count):
            if bits.u(1):  # luma_weight_flag
                bits.se()
                bits.se()
            if chroma_array_type != 0 and bits.u(1):  # chroma_weight_flag
                for _ in range(4):
                    bits.se()


def _skip_dec_ref_pic_marking(bits, nal_unit_type):
    """7.3.3.3"""
    if nal_unit_type == IDR_UNIT:
        bits.u(2)  # no_output_of_prior_pics_flag, long_term_reference_flag
    elif bits.u(1):  # adaptive_ref_pic_marking_mode_flag
        operands = {1: 1, 2: 1, 3: 2, 4: 1, 5: 0, 6: 1}
        while (operation := bits.ue(6)) != 0:
            for _ in range(operands[operation]):
                bits.ue()


def _slice_group_change_cycle_bits(sps, pps):
    """(7-36): Ceil(Log2(PicSizeInMapUnits / SliceGroupChangeRate + 1)), the quotient rounded up"""
    map_units = sps.width_in_mbs * sps.height_in_map_units
    cycles = -(-map_units // pps.slice_group_change_rate)
    return cycles.bit_length()
