// The caption services of a programme, as descriptors in its program map announce them and as a
// command line names them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

enum class caption_kind {
    cea608,   // numbers 1 to 4: CC1 to CC4
    cea708,   // numbers 1 to 63: caption service
    teletext, // numbers 0x100 to 0x8FF: page, the digits as shown
};

struct caption_service {
    caption_kind kind = caption_kind::cea608;
    int number = 1;
    std::string language; // ISO 639, three letters

    bool operator==(const caption_service&) const = default;
};

// Reads "cc1", "708:1" and "teletext:888". False for any other text.
[[nodiscard]] bool parse_caption_service(std::string_view text, caption_service& service);

// The same back again, for messages.
std::string name_of(const caption_service& service);

// Appends what a loop of descriptors announces: subtitle pages of the teletext_descriptor (ETSI EN
// 300 468, 6.2.43), and the services of the caption_service_descriptor (ATSC A/65, 6.9.2). What is
// cut off is left out.
void append_announced_services(std::span<const uint8_t> descriptors,
                               std::vector<caption_service>& services);

// Whether one of the descriptors is a teletext_descriptor: the stream carries teletext then.
bool has_teletext_descriptor(std::span<const uint8_t> descriptors);
