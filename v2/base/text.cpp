#include "v2/base/text.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "toolkit/owner.hpp"

std::string format_text(const char* format, ...)
{
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);

    if (length < 0)
        throw std::bad_alloc();
    const std::unique_ptr<char, destroy_with<std::free>> owner{text};
    return {text, static_cast<size_t>(length)};
}
