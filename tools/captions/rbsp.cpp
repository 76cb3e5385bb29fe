#include "tools/captions/rbsp.hpp"

#include "toolkit/h264/h2645_common_nal_reader.hpp"
#include "toolkit/h264/h264_nal.hpp"

namespace
{

// A range that is one unit, without a start code.
struct one_unit {
    static tremsa::h2645_common_nal_extent locate(const uint8_t* p, const uint8_t* end)
    {
        return {.start = p, .data = p, .end = end};
    }
};

} // namespace

std::vector<uint8_t> rbsp_of(std::span<const uint8_t> nal_unit)
{
    tremsa::h2645_common_nal_reader<tremsa::h264_nal, one_unit> reader;
    reader.scan(nal_unit.data(), nal_unit.data() + nal_unit.size());
    std::vector<uint8_t> rbsp(nal_unit.size());
    rbsp.resize(reader.block_decode(rbsp.data(), rbsp.size()));
    return rbsp;
}
