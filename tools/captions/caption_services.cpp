#include "tools/captions/caption_services.hpp"

#include <algorithm>
#include <charconv>

namespace
{

constexpr uint8_t teletext_descriptor = 0x56;
constexpr uint8_t caption_service_descriptor = 0x86;
constexpr size_t language_bytes = 3; // ISO_639_language_code

bool is_letter(uint8_t byte)
{
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
}

// "und", undetermined, for what is no code. Capitals are the same language.
std::string language_of(std::span<const uint8_t> code)
{
    if (!std::ranges::all_of(code, is_letter))
        return "und";
    std::string language(code.begin(), code.end());
    for (char& letter : language)
        letter = static_cast<char>(letter | 0x20);
    return language;
}

// Per page
//   bytes 0-2  ISO_639_language_code
//   byte 3     teletext_type:5 teletext_magazine_number:3
//   byte 4     teletext_page_number, two digits of 4 bits
void append_teletext(std::span<const uint8_t> body, std::vector<caption_service>& services)
{
    constexpr size_t page_bytes = 5;
    constexpr int subtitle_page = 2;
    constexpr int subtitle_page_for_hearing_impaired = 5;
    for (; body.size() >= page_bytes; body = body.subspan(page_bytes)) {
        const int type = body[3] >> 3;
        const int magazine = (body[3] & 7) == 0 ? 8 : body[3] & 7;
        if (type == subtitle_page || type == subtitle_page_for_hearing_impaired)
            services.push_back({.kind = caption_kind::teletext,
                                .number = magazine << 8 | body[4],
                                .language = language_of(body.first(language_bytes))});
    }
}

// byte 0       reserved:3 number_of_services:5
// per service
//   bytes 0-2  language
//   byte 3     digital_cc:1 reserved:1, then caption_service_number:6 or reserved:5 line21_field:1
//   bytes 4-5  easy_reader:1 wide_aspect_ratio:1 reserved:14
void append_atsc(std::span<const uint8_t> body, std::vector<caption_service>& services)
{
    constexpr size_t service_bytes = 6;
    if (body.empty())
        return;
    int left = body[0] & 0x1F;
    body = body.subspan(1);
    for (; left > 0 && body.size() >= service_bytes; --left, body = body.subspan(service_bytes)) {
        const bool digital_cc = (body[3] & 0x80) != 0;
        const int analogue_number = (body[3] & 1) != 0 ? 3 : 1; // CC3 is in the second field
        const int digital_number = body[3] & 0x3F;
        if (digital_cc && digital_number == 0)
            continue;
        services.push_back({.kind = digital_cc ? caption_kind::cea708 : caption_kind::cea608,
                            .number = digital_cc ? digital_number : analogue_number,
                            .language = language_of(body.first(language_bytes))});
    }
}

template <typename OnDescriptor>
void for_each_descriptor(std::span<const uint8_t> descriptors, OnDescriptor&& on_descriptor)
{
    while (descriptors.size() >= 2) {
        const uint8_t tag = descriptors[0];
        const size_t length = descriptors[1];
        descriptors = descriptors.subspan(2);
        if (length > descriptors.size())
            return;
        on_descriptor(tag, descriptors.first(length));
        descriptors = descriptors.subspan(length);
    }
}

[[nodiscard]] bool parse_number(std::string_view text, int base, int& number)
{
    const char* const end = text.data() + text.size();
    const auto [last, failure] = std::from_chars(text.data(), end, number, base);
    return failure == std::errc{} && last == end;
}

} // namespace

bool parse_caption_service(std::string_view text, caption_service& service)
{
    constexpr std::string_view cea608_prefix = "cc";
    constexpr std::string_view cea708_prefix = "708:";
    constexpr std::string_view teletext_prefix = "teletext:";
    if (text.starts_with(cea608_prefix)) {
        service.kind = caption_kind::cea608;
        return parse_number(text.substr(cea608_prefix.size()), 10, service.number) &&
               service.number >= 1 && service.number <= 4;
    }
    if (text.starts_with(cea708_prefix)) {
        service.kind = caption_kind::cea708;
        return parse_number(text.substr(cea708_prefix.size()), 10, service.number) &&
               service.number >= 1 && service.number <= 63;
    }
    if (text.starts_with(teletext_prefix)) {
        service.kind = caption_kind::teletext;
        return parse_number(text.substr(teletext_prefix.size()), 16, service.number) &&
               service.number >= 0x100 && service.number <= 0x8FF;
    }
    return false;
}

std::string name_of(const caption_service& service)
{
    if (service.kind == caption_kind::cea608)
        return "cc" + std::to_string(service.number);
    if (service.kind == caption_kind::cea708)
        return "708:" + std::to_string(service.number);
    char digits[8] = {};
    const auto end = std::to_chars(digits, digits + sizeof digits, service.number, 16).ptr;
    return "teletext:" + std::string(digits, end);
}

void append_announced_services(std::span<const uint8_t> descriptors,
                               std::vector<caption_service>& services)
{
    for_each_descriptor(descriptors, [&services](uint8_t tag, std::span<const uint8_t> body) {
        if (tag == teletext_descriptor)
            append_teletext(body, services);
        else if (tag == caption_service_descriptor)
            append_atsc(body, services);
    });
}

bool has_teletext_descriptor(std::span<const uint8_t> descriptors)
{
    bool found = false;
    for_each_descriptor(descriptors, [&found](uint8_t tag, std::span<const uint8_t>) {
        found = found || tag == teletext_descriptor;
    });
    return found;
}
