#include "tests/support/h264_access_unit.hpp"

byte_string h264_sps(const h264_picture_size& size)
{
    return h264_sps_unit(h264_sps_of_size(size.width, size.height));
}

byte_string h264_pps()
{
    return h264_pps_unit();
}

byte_string h264_idr_slice(size_t filler_bytes)
{
    return h264_slice_unit({.slice_data_bytes = filler_bytes});
}

byte_string h264_p_slice(size_t filler_bytes)
{
    return h264_slice_unit({.nal_unit_type = 1,
                            .slice_type = 5, // P, as all slices of the picture
                            .frame_num = 1,
                            .pic_order_cnt_lsb = 2,
                            .slice_data_bytes = filler_bytes});
}

byte_string h264_keyframe(const h264_picture_size& size, size_t filler_bytes)
{
    return concat(
        {h264_access_unit_delimiter(), h264_sps(size), h264_pps(), h264_idr_slice(filler_bytes)});
}

byte_string h264_p_picture(size_t filler_bytes)
{
    return concat({h264_access_unit_delimiter(), h264_p_slice(filler_bytes)});
}
