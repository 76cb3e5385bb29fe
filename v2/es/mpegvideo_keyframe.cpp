#include "toolkit/pes/mpeg_video_scanner.hpp"
#include "v2/es/keyframe.hpp"

namespace
{

constexpr uint8_t i_picture = 1; // picture_coding_type, ISO/IEC 13818-2, table 6-12

} // namespace

// A sequence or GOP header counts whatever picture follows it. Without one, an I-picture of an open
// GOP, whose B-pictures precede it in display order, does not count.
bool is_video_keyframe_mpegvideo(const unsigned char* p, const unsigned char* end, PIDmap& /*pm*/)
{
    const mpeg_video_ptr scanner{mpeg_video_create()};
    if (!scanner)
        return false;

    bool result = false;
    while (p <= end) {
        p = mpeg_video_scan(scanner.get(), p, end);
        if (scanner->start_code == 0 || scanner->at_end)
            break;

        if (scanner->start_code == sequence_header_code ||
            scanner->start_code == group_start_code) {
            result = true;
        } else if (scanner->start_code == picture_start_code) {
            mpeg_video_picture_header picture;
            if (mpeg_video_decode_picture_header(scanner->code_ptr, end, &picture) == 0)
                continue;
            if (picture.picture_coding_type == i_picture && picture.temporal_reference == 0)
                result = true;
            break; // the first picture decides
        }
    }
    return result;
}
