// Whether the start of a video PES packet begins a picture that can open a fragment.
#pragma once

struct PIDmap;

// The test of pm's video_kind on the PES payload [p, end); false for any other kind.
[[nodiscard]] bool is_video_keyframe(const unsigned char* p, const unsigned char* end, PIDmap& pm);

// True when some slice in the range is the first of its picture and an I or SI slice. On the way
// the parameter sets and the picture size are kept in `pm`.
[[nodiscard]] bool is_video_keyframe_h264(const unsigned char* pes_payload,
                                          const unsigned char* end, PIDmap& pm);

// MPEG-1 and MPEG-2 video: true when a sequence or GOP header stands before the first picture, or
// when the first picture is an I-picture with temporal_reference 0. Keeps nothing.
[[nodiscard]] bool is_video_keyframe_mpegvideo(const unsigned char* p, const unsigned char* end,
                                               PIDmap& pm);
