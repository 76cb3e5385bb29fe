#include "tests/support/h264_access_unit.hpp"

byte_string h264_parameter_sets(const h264_picture_size& size)
{
    return concat({h264_sps_unit(h264_sps_of_size(size.width, size.height)), h264_pps_unit()});
}

byte_string h264_idr_slice(size_t slice_data_bytes)
{
    return h264_slice_unit({.slice_data_bytes = slice_data_bytes});
}

byte_string h264_p_slice(size_t slice_data_bytes)
{
    return h264_slice_unit({.nal_unit_type = 1,
                            .slice_type = 5,
                            .frame_num = 1,
                            .slice_data_bytes = slice_data_bytes});
}

byte_string h264_keyframe(const h264_picture_size& size, size_t slice_data_bytes)
{
    return concat({h264_access_unit_delimiter(), h264_parameter_sets(size),
                   h264_idr_slice(slice_data_bytes)});
}

byte_string h264_p_picture(size_t slice_data_bytes)
{
    return concat({h264_access_unit_delimiter(), h264_p_slice(slice_data_bytes)});
}
