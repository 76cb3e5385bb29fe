#include "publisher/read/scte35.hpp"

#include <fmt/format.h>

#include "toolkit/big_endian.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/crc32.hpp"
#include "toolkit/ts/splice_stream.hpp"

namespace
{

constexpr uint8_t splice_insert_type = 0x05;
constexpr uint8_t time_signal_type = 0x06;
constexpr uint8_t segmentation_descriptor_tag = 0x02;
constexpr uint16_t length_not_told = 0xFFF; // of a command, by older equipment
constexpr size_t most_segmentations = 16;   // of a section

// Bytes in a row. What is beyond the end reads as 0 and leaves `good` false.
class byte_reader
{
public:
    explicit byte_reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    uint64_t number(size_t bytes)
    {
        uint64_t value = 0;
        for (const uint8_t byte : take(bytes))
            value = value << 8 | byte;
        return value;
    }
    std::span<const uint8_t> take(size_t bytes)
    {
        if (bytes > bytes_.size()) {
            good_ = false;
            bytes_ = {};
            return {};
        }
        const auto taken = bytes_.first(bytes);
        bytes_ = bytes_.subspan(bytes);
        return taken;
    }
    [[nodiscard]] bool good() const { return good_; }
    [[nodiscard]] bool at_end() const { return bytes_.empty(); }

private:
    std::span<const uint8_t> bytes_;
    bool good_ = true;
};

std::string hexadecimal(std::span<const uint8_t> bytes)
{
    constexpr const char* digits = "0123456789ABCDEF";
    std::string text = "0x";
    for (const uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

// splice_time(), 9.8.1
//   time_specified_flag:1 reserved:6 pts_time:33, or time_specified_flag:1 reserved:7
// -1: it is not told.
int64_t read_time(byte_reader& bytes)
{
    const uint64_t first = bytes.number(1);
    if ((first & 0x80) == 0)
        return -1;
    return static_cast<int64_t>((first & 1) << 32 | bytes.number(4));
}

// splice_insert(), 9.7.3
//   bytes 0-3  splice_event_id
//   byte 4     splice_event_cancel_indicator:1 reserved:7
//   byte 5     out_of_network_indicator:1 program_splice_flag:1 duration_flag:1
//              splice_immediate_flag:1 event_id_compliance_flag:1 reserved:3
//   splice_time(), or for each component its tag and splice_time()
//   break_duration(), 9.8.2: auto_return:1 reserved:6 duration:33
//   unique_program_id:16 avail_num:8 avails_expected:8
// The time of a splice by components is that of the first one.
splice_cue read_insert(byte_reader& bytes)
{
    splice_cue result;
    result.event = fmt::format("insert-{}", bytes.number(4));
    const bool is_cancelled = (bytes.number(1) & 0x80) != 0;
    if (is_cancelled) {
        result.kind = splice_kind::cancel;
        return result;
    }
    const uint64_t flags = bytes.number(1);
    result.kind = (flags & 0x80) != 0 ? splice_kind::out : splice_kind::in;
    const bool is_whole_programme = (flags & 0x40) != 0;
    const bool has_duration = (flags & 0x20) != 0;
    const bool is_immediate = (flags & 0x10) != 0;
    if (is_whole_programme) {
        if (!is_immediate)
            result.time = read_time(bytes);
    } else {
        const uint64_t count = bytes.number(1);
        for (uint64_t i = 0; i < count && bytes.good(); i++) {
            bytes.take(1); // component_tag
            const int64_t time = is_immediate ? -1 : read_time(bytes);
            if (i == 0)
                result.time = time;
        }
    }
    if (has_duration) {
        const uint64_t first = bytes.number(1);
        result.returns = (first & 0x80) != 0;
        result.duration = static_cast<int64_t>((first & 1) << 32 | bytes.number(4));
    }
    bytes.take(4);
    return result;
}

// Segmentation that leads out of the programme and, one number further, back into it: breaks,
// advertisements, placement opportunities and advertisement blocks, table 23.
bool comes_in_pairs(uint8_t segmentation_type)
{
    return (segmentation_type >= 0x22 && segmentation_type <= 0x23) ||
           (segmentation_type >= 0x30 && segmentation_type <= 0x37) ||
           (segmentation_type >= 0x44 && segmentation_type <= 0x47);
}

// segmentation_descriptor(), 10.3.3, behind its identifier
//   bytes 0-3  segmentation_event_id
//   byte 4     segmentation_event_cancel_indicator:1 reserved:7
//   byte 5     program_segmentation_flag:1 segmentation_duration_flag:1 ...:6
//   for each component component_tag:8 reserved:7 pts_offset:33
//   segmentation_duration:40
//   segmentation_upid_type:8 segmentation_upid_length:8 and so many bytes
//   segmentation_type_id:8 segment_num:8 segments_expected:8
splice_cue read_segmentation(byte_reader& bytes)
{
    splice_cue result;
    result.event = fmt::format("segmentation-{}", bytes.number(4));
    const bool is_cancelled = (bytes.number(1) & 0x80) != 0;
    if (is_cancelled) {
        result.kind = splice_kind::cancel;
        return result;
    }
    const uint64_t flags = bytes.number(1);
    if ((flags & 0x80) == 0)
        bytes.take(6 * bytes.number(1));
    if ((flags & 0x40) != 0)
        result.duration = static_cast<int64_t>(bytes.number(5));
    bytes.take(1); // segmentation_upid_type
    bytes.take(bytes.number(1));
    result.type = static_cast<uint8_t>(bytes.number(1));
    bytes.take(2); // segment_num, segments_expected
    if (comes_in_pairs(result.type)) {
        result.kind = (result.type & 1) == 0 ? splice_kind::out : splice_kind::in;
        result.type &= 0xFE;
    }
    return result;
}

// Each: splice_descriptor_tag:8 descriptor_length:8 identifier:32 ...
// False: the loop or one of the descriptors is not whole.
bool read_segmentations(byte_reader bytes, std::vector<splice_cue>& found)
{
    while (!bytes.at_end() && found.size() < most_segmentations) {
        const uint64_t tag = bytes.number(1);
        byte_reader descriptor(bytes.take(bytes.number(1)));
        if (tag != segmentation_descriptor_tag || descriptor.number(4) != cuei_identifier)
            continue;
        found.push_back(read_segmentation(descriptor));
        if (!descriptor.good())
            return false;
    }
    return bytes.good();
}

// A signal tells something of each of its segmentations; where there is none, of itself.
bool read_signal(byte_reader& command, byte_reader& rest, uint32_t crc,
                 std::vector<splice_cue>& found)
{
    const int64_t time = read_time(command);
    const byte_reader descriptors(rest.take(rest.number(2)));
    if (!command.good() || !rest.good() || !read_segmentations(descriptors, found))
        return false;
    if (found.empty())
        found.emplace_back().event = fmt::format("signal-{}", crc);
    for (splice_cue& told : found)
        told.time = time;
    return true;
}

} // namespace

//   byte 0       table_id
//   bytes 1-2    section_syntax_indicator:1 private_indicator:1 sap_type:2 section_length:12
//   byte 3       protocol_version
//   bytes 4-8    encrypted_packet:1 encryption_algorithm:6 pts_adjustment:33
//   byte 9       cw_index
//   bytes 10-12  tier:12 splice_command_length:12
//   byte 13      splice_command_type, and the command
//   descriptor_loop_length:16, the descriptors, CRC_32
std::vector<splice_cue> read_splices(std::span<const uint8_t> section)
{
    if (section.size() < 14 + 2 + crc32_bytes || section[0] != splice_table_id ||
        section.size() != 3 + (load_be16(section.data() + 1) & size_t{0x0FFF}) ||
        crc32_mpeg2(section.data(), section.data() + section.size()) != 0)
        return {};
    const bool is_encrypted = (section[4] & 0x80) != 0;
    if (section[3] != 0 || is_encrypted)
        return {};
    const int64_t adjustment = int64_t{section[4] & 1} << 32 | load_be32(section.data() + 5);
    const uint16_t command_length = load_be16(section.data() + 11) & 0x0FFF;
    const uint32_t crc = load_be32(section.data() + section.size() - crc32_bytes);

    byte_reader rest(section.subspan(14, section.size() - 14 - crc32_bytes));
    byte_reader told_command(rest);
    if (command_length != length_not_told)
        told_command = byte_reader(rest.take(command_length));
    // Its end is where it ends by itself, where its length is not told.
    byte_reader& command = command_length == length_not_told ? rest : told_command;

    std::vector<splice_cue> splices;
    if (section[13] == splice_insert_type) {
        splices.push_back(read_insert(command));
        if (!command.good())
            return {};
    } else if (section[13] == time_signal_type) {
        if (!read_signal(command, rest, crc, splices))
            return {};
    }
    for (splice_cue& told : splices) {
        told.immediate = told.time < 0;
        if (!told.immediate)
            told.time = stamp_sum(told.time, adjustment);
        told.section = hexadecimal(section);
    }
    return splices;
}
