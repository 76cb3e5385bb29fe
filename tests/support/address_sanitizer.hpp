// Whether AddressSanitizer is compiled in, which slows a program down and keeps the memory that it
// frees. gcc has a macro for it, clang 14 a feature.

#pragma once

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool sanitized = true;
#elif defined(__has_feature)
inline constexpr bool sanitized = __has_feature(address_sanitizer);
#else
inline constexpr bool sanitized = false;
#endif
