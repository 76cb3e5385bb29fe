#include "tools/captions/rbsp.hpp"

std::vector<uint8_t> rbsp_of(std::span<const uint8_t> nal_unit)
{
    std::vector<uint8_t> rbsp;
    rbsp.reserve(nal_unit.size());
    int zeros = 0;
    for (const uint8_t byte : nal_unit.subspan(1)) {
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        rbsp.push_back(byte);
    }
    return rbsp;
}
