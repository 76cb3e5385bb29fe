#include "v2/playlist/url_escape.hpp"

#include "v2/base/text.hpp"

std::string url_escape(const std::string& name)
{
    std::string escaped;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x21 || byte == '%' || byte == '&' || byte == '?')
            escaped += format_text("%%%02X", unsigned{byte});
        else
            escaped += c;
    }
    return escaped;
}
