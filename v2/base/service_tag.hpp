// Caption languages may be known only by their service number: the tag "v" and the number less
// one, so "v0" is the primary service.
#pragma once

#include <string_view>

constexpr bool is_service_tag(std::string_view code)
{
    return code.size() >= 2 && code[0] == 'v' && code[1] >= '0' && code[1] <= '9';
}
