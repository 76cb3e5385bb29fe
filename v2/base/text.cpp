#include "v2/base/text.hpp"

#include <cstdarg>
#include <cstdio>

std::string format_text(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list second_pass;
    va_copy(second_pass, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);

    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, second_pass);
    va_end(second_pass);
    return text;
}
