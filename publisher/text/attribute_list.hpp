// Writes one attribute list, RFC 8216 4.2; it owns the commas.
#pragma once

#include <string>

class attribute_list
{
public:
    explicit attribute_list(std::string& text) : text_(text) {}

    void add(const char* name, const std::string& value)
    {
        if (!first_)
            text_ += ',';
        first_ = false;
        text_ += name;
        text_ += '=';
        text_ += value;
    }

    // What a quoted string may not hold is left out, RFC 8216 4.2.
    void add_quoted(const char* name, std::string value)
    {
        std::erase_if(value, [](char c) {
            return c == '"' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
        });
        add(name, '"' + value + '"');
    }

private:
    std::string& text_;
    bool first_ = true;
};
