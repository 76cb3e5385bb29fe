#include "toolkit/pes/start_code.hpp"

#include <cstddef>
#include <cstring>

// Looks for the prefix's last byte: memchr takes many bytes at a time, and a byte of 1 is rare in
// coded data.
const uint8_t* find_start_code_prefix(const uint8_t* p, const uint8_t* end)
{
    while (end - p >= 3) {
        const void* found = std::memchr(p + 2, 1, static_cast<size_t>(end - p) - 2);
        if (found == nullptr)
            return end;
        const auto* one = static_cast<const uint8_t*>(found);
        if (one[-1] == 0 && one[-2] == 0)
            return one - 2;
        p = one - 1; // the next candidate for the last byte stands behind this one
    }
    return end;
}
