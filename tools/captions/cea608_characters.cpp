#include "tools/captions/cea608_characters.hpp"

#include <string_view>

namespace
{

constexpr std::u32string_view special = U"®°½¿™¢£♪à\u00A0èâêîôû";

constexpr std::u32string_view extended[2] = {
    U"ÁÉÓÚÜü‘¡*'—©℠•“”ÀÂÇÈÊËëÎÏïÔÙùÛ«»",
    U"ÃãÍÌìÒòÕõ{}\\^_|~ÄäÖöß¥¤│ÅåØø┌┐└┘",
};

static_assert(special.size() == 16 && extended[0].size() == 32 && extended[1].size() == 32);

} // namespace

// ASCII but for ten codes.
char32_t cea608_basic_character(uint8_t code)
{
    switch (code) {
    case 0x27:
        return U'’';
    case 0x2A:
        return U'á';
    case 0x5C:
        return U'é';
    case 0x5E:
        return U'í';
    case 0x5F:
        return U'ó';
    case 0x60:
        return U'ú';
    case 0x7B:
        return U'ç';
    case 0x7C:
        return U'÷';
    case 0x7D:
        return U'Ñ';
    case 0x7E:
        return U'ñ';
    case 0x7F:
        return U'█';
    default:
        return code;
    }
}

char32_t cea608_special_character(uint8_t code)
{
    return special[code & 0x0F];
}

char32_t cea608_extended_character(int set, uint8_t code)
{
    return extended[set & 1][code & 0x1F];
}
