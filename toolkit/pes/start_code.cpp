#include "toolkit/pes/start_code.hpp"

const uint8_t* find_start_code_prefix(const uint8_t* p, const uint8_t* end)
{
    // The third byte of a candidate decides how far the search may skip: above 1 it is part of no
    // prefix, at 1 it ends one or excludes the three positions before it, at 0 it may be inside.
    while (end - p >= 3) {
        if (p[2] == 1 && p[0] == 0 && p[1] == 0)
            return p;
        p += p[2] == 0 ? 1 : 3;
    }
    return end;
}
