// What pages of teletext show (ETSI EN 300 706, level 1.5): libzvbi does it. Without that library
// there is no decoder.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "toolkit/owner.hpp"
#include "tools/captions/caption_screen.hpp"

constexpr int teletext_rows = 25; // row 0 is the header and is never shown
constexpr int teletext_columns = 40;
constexpr size_t teletext_packet_bytes = 42; // from the address on

using teletext_packet = std::span<const uint8_t, teletext_packet_bytes>;

// False where the program was built without libzvbi.
extern const bool teletext_is_built_in;

struct teletext_decoder;

// Null when there is no memory, or no library.
[[nodiscard]] teletext_decoder* teletext_decoder_create();
void teletext_decoder_destroy(teletext_decoder* decoder);

using teletext_decoder_ptr =
    std::unique_ptr<teletext_decoder, destroy_with<teletext_decoder_destroy>>;

// Takes a packet as it was sent, the bit that came first being the lowest of its byte. True when
// that has completed a page, whose number and screen are given then.
[[nodiscard]] bool teletext_decoder_take(teletext_decoder* decoder, teletext_packet packet,
                                         int& page, caption_screen& screen);
