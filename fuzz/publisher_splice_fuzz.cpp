// Sections of splice information, and the date ranges that are made of them.

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "publisher/text/date_range.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/crc32.hpp"

namespace
{

void take_splices(std::vector<date_range>& ranges, std::span<const uint8_t> section)
{
    constexpr int64_t noon = int64_t{1795262400} * pts_ticks_per_second; // 2026-11-21 12:00:00 UTC
    for (const splice_cue& told : read_splices(section)) {
        require(told.time >= -1 && told.time < pts_modulus && told.duration >= 0);
        require(told.immediate == (told.time < 0));
        require(told.section.size() == 2 + 2 * section.size());
        require(take_splice(ranges, told, noon + std::max<int64_t>(told.time, 0), noon));
    }
    end_returned(ranges, noon);
}

void read_splice_section(const std::vector<uint8_t>& section)
{
    std::vector<date_range> ranges;
    take_splices(ranges, section);
    const size_t count = ranges.size();
    take_splices(ranges, section); // what comes again is no news
    require(ranges.size() == count);
    const std::string text = date_ranges_text(ranges);
    require(date_ranges_text(parse_date_ranges(parse_media_list(text))) == text);
}

} // namespace

// The bytes as they are, and as they would be with a length and a CRC_32 that are right.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr size_t header_bytes = 3;
    constexpr size_t most_bytes = header_bytes + 4093;
    std::vector<uint8_t> section(data, data + size);
    read_splice_section(section);
    if (size < header_bytes + crc32_bytes || size > most_bytes)
        return 0;
    const size_t length = size - header_bytes;
    section[1] = static_cast<uint8_t>((section[1] & 0xF0) | length >> 8);
    section[2] = static_cast<uint8_t>(length);
    uint8_t* crc = section.data() + size - crc32_bytes;
    write_ts_checksum(crc, section.data(), crc);
    read_splice_section(section);
    return 0;
}
