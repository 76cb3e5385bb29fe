#include "v2/base/assertion.hpp"

#undef NDEBUG // <cassert> declares the platform's reporting function only without it
#include <cassert>

void assertion_failed(const char* expression, unsigned line, const char* function)
{
    __assert_fail(expression, "v2/vorn_mpegts_to_hls.cpp", line, function);
}
