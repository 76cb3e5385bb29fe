#include "tools/captions/teletext_stream.hpp"

#include <algorithm>

#include "tools/captions/hamming.hpp"

namespace
{

constexpr uint8_t reversed(uint8_t byte)
{
    byte = static_cast<uint8_t>((byte & 0xF0) >> 4 | (byte & 0x0F) << 4);
    byte = static_cast<uint8_t>((byte & 0xCC) >> 2 | (byte & 0x33) << 2);
    return static_cast<uint8_t>((byte & 0xAA) >> 1 | (byte & 0x55) << 1);
}

constexpr std::array<int, 256> make_hamming_table()
{
    std::array<int, 256> table{};
    for (size_t byte = 0; byte < table.size(); ++byte)
        table[byte] = hamming_decoded(static_cast<uint8_t>(byte));
    return table;
}

constexpr std::array<int, 256> hamming_table = make_hamming_table();

// Two coded bytes, the lower 4 bits first; negative where they cannot be read.
int coded_byte(teletext_packet packet, size_t at)
{
    const int low = hamming_table[packet[at]];
    const int high = hamming_table[packet[at + 1]];
    return low < 0 || high < 0 ? -1 : low | high << 4;
}

int page_number(size_t magazine, int page)
{
    return static_cast<int>(magazine == 0 ? 8 : magazine) << 8 | page;
}

} // namespace

// PES_data_field()
//   byte 0       data_identifier, 0x10 to 0x1F for EBU data
//   then, per data unit:
//   byte 0       data_unit_id, 0x02 teletext or 0x03 teletext subtitles
//   byte 1       data_unit_length, 44
//   byte 2       reserved:2 field_parity:1 line_offset:5
//   byte 3       framing_code
//   bytes 4-45   the packet, in the order of transmission, the first bit highest
void teletext_stream::take(int64_t time, std::span<const uint8_t> payload)
{
    constexpr uint8_t teletext = 0x02;
    constexpr uint8_t teletext_subtitle = 0x03;
    constexpr uint8_t framing_code = 0xE4;
    if (payload.empty() || payload[0] < 0x10 || payload[0] > 0x1F)
        return;
    end_pages_begun_before(time - teletext_complete_ticks);
    payload = payload.subspan(1);
    while (payload.size() >= 2) {
        const uint8_t id = payload[0];
        const size_t length = payload[1];
        payload = payload.subspan(2);
        if (length > payload.size())
            return;
        const auto unit = payload.first(length);
        payload = payload.subspan(length);
        if ((id != teletext && id != teletext_subtitle) || length != 2 + teletext_packet_bytes ||
            unit[1] != framing_code)
            continue;
        std::array<uint8_t, teletext_packet_bytes> packet;
        std::ranges::transform(unit.subspan(2), packet.begin(), reversed);
        take_packet(time, packet);
    }
}

// The first two bytes hold magazine:3 packet:5.
void teletext_stream::take_packet(int64_t time, teletext_packet packet)
{
    constexpr int last_that_belongs_to_a_page = 28;
    const int address = coded_byte(packet, 0);
    if (address < 0)
        return;
    const size_t magazine = static_cast<size_t>(address) & 7;
    const int number = address >> 3;
    if (number == 0)
        take_header(time, magazine, packet);
    // The first behind those of the page is about all pages of the magazine.
    else if (number == last_that_belongs_to_a_page + 1 ||
             (number <= last_that_belongs_to_a_page && in_wanted_page[magazine]))
        decode(magazine, packet);
}

// A header ends the page before it in its magazine; where magazines are sent in series, the page
// before it in any (9.3.1).
//   bytes 2-3  page number
//   bytes 4-9  sub-code and control bits, 4 of them in each: C4 is the highest of byte 5, C5 and C6
//              the highest of byte 7, C10 the highest of byte 8, C11 the lowest of byte 9
void teletext_stream::take_header(int64_t time, size_t magazine, teletext_packet packet)
{
    const int page = coded_byte(packet, 2);
    const int subcode_and_c4 = hamming_table[packet[5]];
    const int subcode_and_c6 = hamming_table[packet[7]];
    const int from_c7 = hamming_table[packet[8]];
    const int from_c11 = hamming_table[packet[9]];
    const bool in_series = from_c11 < 0 || (from_c11 & 1) != 0;
    for (size_t other = 0; other < in_wanted_page.size(); ++other)
        if (in_wanted_page[other] && (in_series || other == magazine))
            end_page(other);

    const auto wanted = page < 0 ? pages.end() : pages.find(page_number(magazine, page));
    if (wanted == pages.end() || subcode_and_c4 < 0 || subcode_and_c6 < 0)
        return;
    in_wanted_page[magazine] = true;
    page_begun_at[magazine] = time;
    is_inhibited[magazine] = from_c7 >= 0 && (from_c7 & 8) != 0;
    // All subpages become one, so that the decoder keeps no more pages than are wanted.
    std::array<uint8_t, teletext_packet_bytes> header;
    std::ranges::copy(packet, header.begin());
    header[4] = hamming_coded(0);
    header[5] = hamming_coded(static_cast<uint8_t>(subcode_and_c4 & 8));
    header[6] = hamming_coded(0);
    header[7] = hamming_coded(static_cast<uint8_t>(subcode_and_c6 & 0xC));
    decode(magazine, header);
}

// The decoder knows a page to be complete when the next header comes: one of no page, for filling.
void teletext_stream::end_page(size_t magazine)
{
    std::array<uint8_t, teletext_packet_bytes> header;
    header.fill(hamming_coded(0));
    header[0] = hamming_coded(static_cast<uint8_t>(magazine));
    header[2] = hamming_coded(0xF);
    header[3] = hamming_coded(0xF);
    std::fill(header.begin() + 10, header.end(), uint8_t{0x20});
    decode(magazine, header);
    in_wanted_page[magazine] = false;
}

void teletext_stream::lose_packets()
{
    for (size_t magazine = 0; magazine < in_wanted_page.size(); ++magazine)
        if (in_wanted_page[magazine])
            end_page(magazine);
}

void teletext_stream::end_pages_begun_before(int64_t time)
{
    for (size_t magazine = 0; magazine < in_wanted_page.size(); ++magazine)
        if (in_wanted_page[magazine] && page_begun_at[magazine] < time)
            end_page(magazine);
}

void teletext_stream::decode(size_t magazine, teletext_packet packet)
{
    if (!decoder)
        decoder.reset(teletext_decoder_create());
    int number = 0;
    caption_screen screen;
    if (!decoder || !teletext_decoder_take(decoder.get(), packet, number, screen))
        return;
    const auto page = pages.find(number);
    if (page == pages.end())
        return;
    const int64_t time = page_begun_at[magazine];
    if (is_inhibited[magazine])
        screen.lines.clear();
    page->second.last_taken = time;
    page->second.cues.show(time, screen, screen_change::whole);
}

void teletext_stream::advance(int64_t time)
{
    end_pages_begun_before(time - teletext_complete_ticks);
    for (auto& [number, page] : pages) {
        // A page that is still being sent will be shown from its header on.
        const size_t magazine = static_cast<size_t>(number) >> 8 & 7;
        const int64_t known =
            in_wanted_page[magazine] ? std::min(time, page_begun_at[magazine]) : time;
        if (!page.cues.shown.lines.empty() && known - page.last_taken >= teletext_erase_ticks)
            page.cues.show(page.last_taken + teletext_erase_ticks,
                           {.rows = teletext_rows, .columns = teletext_columns, .lines = {}},
                           screen_change::whole);
        page.cues.advance(known);
    }
}

void teletext_stream::forget()
{
    for (auto& [number, page] : pages) {
        page.cues.forget();
        page.last_taken = 0;
    }
    decoder.reset();
    in_wanted_page = {};
}
