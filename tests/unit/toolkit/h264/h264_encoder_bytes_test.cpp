// Parameter sets and slice headers as an encoder wrote them, beside the values that another reader
// of the syntax reported for the same bytes; encoder_bytes.txt says more.
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/toolkit/h264/h264_text.hpp"
#include "toolkit/h264/h2645_common_nal_reader.hpp"

namespace tremsa
{

namespace
{

// The unit as a stream carries it.
std::vector<uint8_t> unit_of(const std::string& hex)
{
    std::vector<uint8_t> unit = {0, 0, 0, 1};
    std::istringstream numbers(hex);
    for (unsigned number = 0; numbers >> std::hex >> number;)
        unit.push_back(static_cast<uint8_t>(number));
    return unit;
}

// Reads the units of one stream, each with the sets that stood before it.
class stream_reader
{
public:
    // The length of the structure, without the unit's header and rbsp_trailing_bits(), and its
    // fields.
    std::string read_unit(const std::vector<uint8_t>& unit)
    {
        h2645_common_nal_reader<h264_nal, h2645_common_nalfmt> reader;
        reader.scan(unit.data(), unit.data() + unit.size());
        std::vector<uint8_t> rbsp(unit.size());
        rbsp.resize(reader.block_decode(rbsp.data(), rbsp.size()));
        h2645_common_bitreader b = reader_of(rbsp);
        const std::string fields = read_structure(reader.nal_found, b);
        return "bits=" + std::to_string(rbsp.size() * 8 - b.bits_left()) + " " + fields;
    }

private:
    std::string read_structure(const h264_nal& nal, h2645_common_bitreader& b)
    {
        if (nal.nal_unit_type == h264_nal_seq_parameter_set) {
            h264_nal_sps& sps = sps_store_.sets[0];
            sps.parse(b);
            EXPECT_FALSE(b.more_rbsp_data());
            return "size=" + std::to_string(sps.getPicWidth()) + "x" +
                   std::to_string(sps.getPicHeight()) + " " + text_of(sps);
        }
        if (nal.nal_unit_type == h264_nal_pic_parameter_set) {
            pps_store_.sets[0].parse(b, sps_store_);
            EXPECT_FALSE(b.more_rbsp_data());
            return text_of(pps_store_.sets[0]);
        }
        header_.parse(b, sps_store_, pps_store_, nal);
        return text_of(header_);
    }

    h2645_common_base_store<h264_nal_sps> sps_store_;
    h2645_common_base_store<h264_nal_pps> pps_store_;
    h264_nal_slice_header header_; // one for all slices: nothing of an earlier one may stay
};

TEST(EncoderBytes, ParameterSetsAndSliceHeadersReadAsReported)
{
    std::ifstream file(SOURCE_DIR "/tests/unit/toolkit/h264/encoder_bytes.txt");
    stream_reader stream;
    size_t units = 0;
    for (std::string line; std::getline(file, line);) {
        const size_t bar = line.find(" | ");
        if (line.starts_with("#") || bar == std::string::npos) {
            stream = {}; // a comment or the name of the next stream
            continue;
        }
        const std::string hex = line.substr(0, bar);
        EXPECT_EQ(hex + " | " + stream.read_unit(unit_of(hex)), line);
        units++;
    }
    EXPECT_EQ(units, 44u);
}

} // namespace

} // namespace tremsa
