#include "toolkit/h264/h2645_common_nal_reader.hpp"

#include <algorithm>
#include <array>
#include <random>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/h264_builder.hpp"
#include "toolkit/h264/h264_nal.hpp"

namespace tremsa
{

namespace
{

using bytes = std::vector<uint8_t>;
using nal_reader = h2645_common_nal_reader<h264_nal, h2645_common_nalfmt>;

struct unit {
    std::ptrdiff_t found; // offsets into the range
    std::ptrdiff_t data;
    uint32_t nal_ref_idc;
    uint32_t nal_unit_type;
    bytes rbsp;

    bool operator==(const unit&) const = default;
};

void PrintTo(const unit& u, std::ostream* out)
{
    *out << "found " << u.found << " data " << u.data << " ref " << u.nal_ref_idc << " type "
         << u.nal_unit_type << " rbsp " << testing::PrintToString(u.rbsp);
}

bytes rbsp_of(nal_reader& r)
{
    bytes out(16384);
    out.resize(r.block_decode(out.data(), out.size()));
    return out;
}

// Walks the range as a caller does and checks what each scan promises.
std::vector<unit> walk(const uint8_t* begin, const uint8_t* end)
{
    std::vector<unit> units;
    nal_reader r;
    for (const uint8_t* p = begin; p < end; p = r.next_scan_ptr) {
        r.scan(p, end);
        EXPECT_GT(r.next_scan_ptr, p);
        EXPECT_LE(r.next_scan_ptr, end);
        EXPECT_FALSE(r.scan_stop);
        EXPECT_NE(r.found, r.scan_done);
        if (r.scan_done || r.next_scan_ptr <= p) {
            EXPECT_EQ(r.next_scan_ptr, end);
            EXPECT_EQ(rbsp_of(r), bytes{});
            break;
        }
        EXPECT_TRUE(r.nal_found.valid);
        units.push_back({.found = r.found_ptr - begin,
                         .data = r.data_ptr - begin,
                         .nal_ref_idc = r.nal_found.nal_ref_idc,
                         .nal_unit_type = r.nal_found.nal_unit_type,
                         .rbsp = rbsp_of(r)});
    }
    return units;
}

std::vector<unit> walk(const bytes& range)
{
    return walk(range.data(), range.data() + range.size());
}

struct range_case {
    std::string_view name;
    bytes range;
    std::vector<unit> want;
};

TEST(NalReader, VisitsEachUnitOfARangeOnce)
{
    const range_case cases[] = {
        {.name = "empty range", .range = {}, .want = {}},
        {.name = "no start code", .range = {0x67, 0, 0, 2, 1, 0, 1}, .want = {}},
        {.name = "zeros only", .range = {0, 0, 0, 0, 0}, .want = {}},
        {.name = "start code cut off", .range = {9, 9, 0, 0}, .want = {}},
        {.name = "start code without header byte", .range = {0, 0, 1}, .want = {}},
        {.name = "one unit",
         .range = {0, 0, 1, 0x67, 0xAA, 0xBB},
         .want = {{0, 3, 3, 7, {0xAA, 0xBB}}}},
        {.name = "header byte only", .range = {0, 0, 1, 0x09}, .want = {{0, 3, 0, 9, {}}}},
        {.name = "junk before the first start code",
         .range = {0x65, 0x88, 0, 0, 1, 0x41, 0xAA},
         .want = {{2, 5, 2, 1, {0xAA}}}},
        {.name = "zero_byte before the first unit",
         .range = {0, 0, 0, 1, 0x65, 0xAA},
         .want = {{0, 4, 3, 5, {0xAA}}}},
        {.name = "leading_zero_8bits",
         .range = {0, 0, 0, 0, 0, 1, 0x65, 0xAA},
         .want = {{2, 6, 3, 5, {0xAA}}}},
        {.name = "two units, three-byte start codes",
         .range = {0, 0, 1, 0x67, 0xAA, 0, 0, 1, 0x68, 0xBB},
         .want = {{0, 3, 3, 7, {0xAA}}, {5, 8, 3, 8, {0xBB}}}},
        {.name = "two units, four-byte start codes",
         .range = {0, 0, 0, 1, 0x67, 0xAA, 0, 0, 0, 1, 0x68, 0xBB},
         .want = {{0, 4, 3, 7, {0xAA}}, {6, 10, 3, 8, {0xBB}}}},
        {.name = "trailing zeros before a start code: one is its zero_byte",
         .range = {0, 0, 1, 0x67, 0xAA, 0, 0, 0, 0, 1, 0x68, 0xBB},
         .want = {{0, 3, 3, 7, {0xAA, 0}}, {6, 10, 3, 8, {0xBB}}}},
        {.name = "trailing zeros at the end",
         .range = {0, 0, 1, 0x67, 0xAA, 0, 0, 0},
         .want = {{0, 3, 3, 7, {0xAA, 0, 0, 0}}}},
        {.name = "two start codes in a row",
         .range = {0, 0, 1, 0, 0, 1, 0x68, 0xBB},
         .want = {{3, 6, 3, 8, {0xBB}}}},
        {.name = "two four-byte start codes in a row",
         .range = {0, 0, 0, 1, 0, 0, 0, 1, 0x68, 0xBB},
         .want = {{4, 8, 3, 8, {0xBB}}}},
        {.name = "start code behind the last unit",
         .range = {0, 0, 1, 0x67, 0xAA, 0, 0, 1},
         .want = {{0, 3, 3, 7, {0xAA}}}},
        {.name = "header byte of zero, an unspecified type",
         .range = {0, 0, 1, 0x00, 0xAA},
         .want = {{0, 3, 0, 0, {0xAA}}}},
        {.name = "forbidden_zero_bit alone", .range = {0, 0, 1, 0xE7, 0xAA}, .want = {}},
        {.name = "forbidden_zero_bit between good units",
         .range = {0, 0, 1, 0x67, 0xAA, 0, 0, 1, 0xE8, 0xBB, 0, 0, 0, 1, 0x65, 0xCC},
         .want = {{0, 3, 3, 7, {0xAA}}, {10, 14, 3, 5, {0xCC}}}},
        {.name = "every type and reference value",
         .range = {0, 0, 1, 0x7F, 0, 0, 1, 0x3F, 0, 0, 1, 0x40},
         .want = {{0, 3, 3, 31, {}}, {4, 7, 1, 31, {}}, {8, 11, 2, 0, {}}}},
    };
    for (const range_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(walk(c.range), c.want);
    }
}

TEST(NalReader, StopsWhereThereIsNothingToScan)
{
    const bytes range = {0, 0, 1, 0x67, 0xAA};
    const uint8_t* begin = range.data();
    const uint8_t* end = begin + range.size();
    nal_reader r;
    r.scan(begin, end);
    ASSERT_TRUE(r.found);

    r.scan(end, end);
    EXPECT_TRUE(r.scan_stop);
    EXPECT_TRUE(r.scan_done);
    EXPECT_FALSE(r.found);
    EXPECT_FALSE(r.nal_found.valid);
    EXPECT_EQ(r.next_scan_ptr, end);
    EXPECT_EQ(r.found_ptr, nullptr);
    EXPECT_EQ(r.data_ptr, nullptr);
    EXPECT_EQ(rbsp_of(r), bytes{});

    r.scan(end, begin);
    EXPECT_TRUE(r.scan_stop);
    EXPECT_NE(r.next_scan_ptr, nullptr);

    r.scan(begin, end); // a reader serves any number of ranges
    EXPECT_TRUE(r.found);
    EXPECT_FALSE(r.scan_stop);
}

TEST(NalReader, BeginsAnywhereInARange)
{
    // A scan from inside the first start code finds the rest of it only while it is whole.
    const bytes range = {0, 0, 0, 1, 0x67, 0xAA, 0, 0, 1, 0x68};
    const std::array<uint32_t, 10> first_type = {7, 7, 8, 8, 8, 8, 8, 0, 0, 0};
    for (size_t i = 0; i < range.size(); i++) {
        SCOPED_TRACE(i);
        nal_reader r;
        r.scan(range.data() + i, range.data() + range.size());
        EXPECT_EQ(r.found, first_type[i] != 0);
        EXPECT_EQ(r.nal_found.nal_unit_type, first_type[i]);
    }
}

struct escape_case {
    std::string_view name;
    bytes unit; // past the header byte
    bytes want;
};

TEST(NalReader, RemovesEmulationPreventionBytes)
{
    const escape_case cases[] = {
        {.name = "00 00 03 01", .unit = {0, 0, 3, 1}, .want = {0, 0, 1}},
        {.name = "00 00 03 00", .unit = {0, 0, 3, 0, 5}, .want = {0, 0, 0, 5}},
        {.name = "00 00 03 03", .unit = {0, 0, 3, 3}, .want = {0, 0, 3}},
        {.name = "twice in a row", .unit = {0, 0, 3, 0, 0, 3, 1}, .want = {0, 0, 0, 0, 1}},
        {.name = "00 03 is payload", .unit = {0, 3, 0, 3}, .want = {0, 3, 0, 3}},
        {.name = "at the very end", .unit = {7, 0, 0, 3}, .want = {7, 0, 0}},
        {.name = "not followed by 00 to 03", .unit = {0, 0, 3, 9}, .want = {0, 0, 9}},
        {.name = "after two zeros in vain", .unit = {0, 0, 4, 3, 3}, .want = {0, 0, 4, 3, 3}},
        {.name = "zeros do not count across it", .unit = {0, 0, 3, 0, 3}, .want = {0, 0, 0, 3}},
    };
    for (const escape_case& c : cases) {
        SCOPED_TRACE(c.name);
        bytes range = {0, 0, 1, 0x67};
        range.insert(range.end(), c.unit.begin(), c.unit.end());
        const std::vector<unit> units = walk(range);
        ASSERT_EQ(units.size(), 1u);
        EXPECT_EQ(units[0].rbsp, c.want);
    }
}

TEST(NalReader, AZeroHeaderByteIsNoPartOfAnEscape)
{
    const std::vector<unit> units = walk({0, 0, 1, 0x00, 0, 3, 1});
    ASSERT_EQ(units.size(), 1u);
    EXPECT_EQ(units[0].rbsp, (bytes{0, 3, 1}));
}

TEST(NalReader, DecodesInBlocksOfAnySize)
{
    const bytes range = {0, 0, 1, 0x67, 1, 0, 0, 3, 0, 0, 3, 1, 2, 0, 0, 3};
    const bytes want = {1, 0, 0, 0, 0, 1, 2, 0, 0};
    nal_reader r;
    r.scan(range.data(), range.data() + range.size());
    for (size_t max = 1; max <= want.size() + 1; max++) {
        SCOPED_TRACE(max);
        r.rewind();
        bytes all;
        for (;;) {
            bytes block(max, 0xEE);
            const size_t n = r.block_decode(block.data(), max);
            ASSERT_LE(n, max);
            if (n == 0)
                break;
            all.insert(all.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(n));
        }
        EXPECT_EQ(all, want);
    }
    r.rewind();
    uint8_t untouched = 0xEE;
    EXPECT_EQ(r.block_decode(&untouched, 0), 0u);
    EXPECT_EQ(untouched, 0xEE);
    EXPECT_EQ(rbsp_of(r), want); // nothing was lost to the empty block
}

TEST(NalReader, CutsAUnitLargerThanTheBuffer)
{
    const bytes sei = h264_sei_unit(20000);
    nal_reader r;
    r.scan(sei.data(), sei.data() + sei.size());
    ASSERT_TRUE(r.found);
    EXPECT_EQ(rbsp_of(r).size(), 16384u);
}

TEST(NalReader, StartCodeLengthMakesNoDifference)
{
    std::vector<unit> per_length[2];
    const h264_start_code codes[] = {h264_start_code::three_bytes, h264_start_code::four_bytes};
    for (size_t i = 0; i < 2; i++) {
        bytes range;
        for (const bytes& u : {h264_access_unit_delimiter(0, codes[i]), h264_sps_unit({}, codes[i]),
                               h264_pps_unit({}, codes[i]), h264_sei_unit(300, codes[i]),
                               h264_slice_unit({}, {}, {}, codes[i])})
            range.insert(range.end(), u.begin(), u.end());
        per_length[i] = walk(range);
        for (unit& u : per_length[i])
            u.found = u.data = 0;
    }
    EXPECT_EQ(per_length[0].size(), 5u);
    EXPECT_EQ(per_length[0], per_length[1]);
}

// Units of a range by the letter of the format: split at every 0x000001, no search of ours.
size_t count_units(const bytes& range)
{
    size_t count = 0;
    for (size_t i = 0; i + 3 < range.size(); i++) {
        if (range[i] != 0 || range[i + 1] != 0 || range[i + 2] != 1 || range[i + 3] >= 0x80)
            continue;
        // 0x000001 or 0x00000001 right behind the start code leaves no unit between the two.
        const bytes rest(range.begin() + static_cast<std::ptrdiff_t>(i) + 3, range.end());
        const bytes three = {0, 0, 1};
        const bytes four = {0, 0, 0, 1};
        const bool empty =
            std::search(rest.begin(), rest.end(), three.begin(), three.end()) == rest.begin() ||
            std::search(rest.begin(), rest.end(), four.begin(), four.end()) == rest.begin();
        count += empty ? 0 : 1;
    }
    return count;
}

TEST(NalReader, EveryWalkOverZerosAndOnesEnds)
{
    std::mt19937 random(7);
    const uint8_t alphabet[] = {0, 0, 0, 1, 1, 3, 0x67, 0xE7};
    for (int round = 0; round < 3000; round++) {
        bytes range(random() % 24);
        for (uint8_t& b : range)
            b = alphabet[random() % std::size(alphabet)];
        SCOPED_TRACE(testing::PrintToString(range));
        EXPECT_EQ(walk(range).size(), count_units(range));
    }
}

TEST(NalHeader, ReadsItsFields)
{
    const uint8_t header[] = {0x65, 0xE5};
    h264_nal nal;
    EXPECT_FALSE(nal.valid);
    nal.parse(header, header + 1);
    EXPECT_TRUE(nal.valid);
    EXPECT_EQ(nal.nal_ref_idc, 3u);
    EXPECT_EQ(nal.nal_unit_type, h264_nal_slice_idr);
    nal.parse(header + 1, header + 2); // forbidden_zero_bit
    EXPECT_FALSE(nal.valid);
    nal.parse(header, header);
    EXPECT_FALSE(nal.valid);
    EXPECT_EQ(nal.nal_unit_type, 0u);
}

} // namespace

} // namespace tremsa
