#include "tools/captions/cea708_characters.hpp"

char32_t cea708_character(uint8_t code)
{
    return code == 0x7F ? U'♪' : char32_t{code}; // ASCII and ISO 8859-1 but for this one
}

char32_t cea708_extended_character(uint8_t code)
{
    switch (code) {
    case 0x20: // the transparent space
    case 0x21:
        return U' ';
    case 0x25:
        return U'…';
    case 0x2A:
        return U'Š';
    case 0x2C:
        return U'Œ';
    case 0x30:
        return U'█';
    case 0x31:
        return U'‘';
    case 0x32:
        return U'’';
    case 0x33:
        return U'“';
    case 0x34:
        return U'”';
    case 0x35:
        return U'•';
    case 0x39:
        return U'™';
    case 0x3A:
        return U'š';
    case 0x3C:
        return U'œ';
    case 0x3D:
        return U'℠';
    case 0x3F:
        return U'Ÿ';
    case 0x76:
        return U'⅛';
    case 0x77:
        return U'⅜';
    case 0x78:
        return U'⅝';
    case 0x79:
        return U'⅞';
    case 0x7A:
        return U'│';
    case 0x7B:
        return U'┐';
    case 0x7C:
        return U'└';
    case 0x7D:
        return U'─';
    case 0x7E:
        return U'┘';
    case 0x7F:
        return U'┌';
    case 0xA0:
        return U'㏄'; // the sign of closed captions
    default:
        return U'_';
    }
}
