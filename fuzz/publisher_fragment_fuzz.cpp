// What the publisher makes of a fragment: GOPs, their tables, and what the stream is like.

#include <algorithm>
#include <vector>

#include "fuzz/fuzz_input.hpp"
#include "publisher/read/fragment_reader.hpp"
#include "toolkit/big_endian.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/crc32.hpp"

namespace
{

constexpr int64_t longest_gop_ticks = 4 * pts_ticks_per_second;

constexpr uint8_t learns_tables = 0x01; // flags of an input
constexpr uint8_t mends_checksums = 0x02;

void take_gops(fragment_reader& reader, uint64_t& end)
{
    while (reader.has_gop()) {
        const gop taken = reader.take_gop();
        require(taken.begin >= end && taken.end >= taken.begin);
        require(taken.begin % ts_packet_bytes == 0 && taken.end % ts_packet_bytes == 0);
        require(taken.picture_end >= taken.picture_begin);
        require(taken.picture_end == taken.picture_begin ||
                (taken.picture_begin >= taken.begin && taken.picture_end <= taken.end));
        require(taken.tables.size() % ts_packet_bytes == 0);
        require(taken.start >= 0 && taken.start < pts_modulus);
        require(taken.length > 0 && taken.length < pts_modulus);
        end = taken.end;
    }
}

// A fragment in pieces of any size, so that packets are cut.
void read_fragment(fragment_reader& reader, std::span<const uint8_t> bytes, size_t piece)
{
    reader.begin_fragment();
    uint64_t end = 0;
    std::vector<uint8_t> waiting;
    for (size_t at = 0; at < bytes.size();) {
        const size_t count = std::min(piece, bytes.size() - at);
        waiting.insert(waiting.end(), bytes.data() + at, bytes.data() + at + count);
        at += count;
        const std::vector<uint8_t> exact(waiting); // so that a read past its end shows
        const size_t taken = reader.read(exact);
        require(taken <= exact.size() && exact.size() - taken < ts_packet_bytes);
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(taken));
        take_gops(reader, end);
    }
    reader.end_fragment();
    take_gops(reader, end);
    require(end <= reader.offset());
}

// A mutated table is read only behind a checksum that holds. Of sections that begin at the start of
// a packet's payload and end in it.
void mend_checksums(std::vector<uint8_t>& bytes)
{
    constexpr size_t header_bytes = 5; // of the packet, and the pointer field
    for (size_t at = 0; bytes.size() - at >= ts_packet_bytes; at += ts_packet_bytes) {
        uint8_t* section = bytes.data() + at + header_bytes;
        const size_t length = 3 + (load_be16(section + 1) & 0x0FFFu);
        if (length > crc32_bytes && length <= ts_packet_bytes - header_bytes &&
            (section[0] == 0x00 || section[0] == 0x02)) // PAT, PMT
            write_ts_checksum(section + length - crc32_bytes, section,
                              section + length - crc32_bytes);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    const size_t piece = 1 + input.number<uint16_t>();
    const auto flags = input.number<uint8_t>();
    std::vector<uint8_t> bytes(input.rest().begin(), input.rest().end());
    if ((flags & mends_checksums) != 0)
        mend_checksums(bytes);
    const std::span<const uint8_t> whole(bytes);

    fragment_reader reader(longest_gop_ticks);
    reader.tell_contents();
    if ((flags & learns_tables) != 0)
        reader.learn_tables(whole);
    const size_t half = whole.size() / 2 / ts_packet_bytes * ts_packet_bytes;
    read_fragment(reader, whole.first(half), piece);
    read_fragment(reader, whole.subspan(half), piece);
    return 0;
}
