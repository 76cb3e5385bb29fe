// Stands in for the decoder where libzvbi is missing.

#include "tools/captions/teletext_decoder.hpp"

const bool teletext_is_built_in = false;

struct teletext_decoder {
};

teletext_decoder* teletext_decoder_create()
{
    return nullptr;
}

void teletext_decoder_destroy(teletext_decoder* /*decoder*/) {}

bool teletext_decoder_take(teletext_decoder* /*decoder*/, teletext_packet /*packet*/, int& /*page*/,
                           caption_screen& /*screen*/)
{
    return false;
}
