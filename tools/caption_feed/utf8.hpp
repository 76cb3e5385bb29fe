// Text that is safe to pass on: the Encoding Standard's UTF-8 decoding, with WebVTT's rule for NUL.
#pragma once

#include <string>
#include <string_view>

// `bytes` with each NUL, and each maximal part of an ill-formed sequence, replaced by U+FFFD.
std::string repaired_utf8(std::string_view bytes);
