// The program's assertion: active in every build, unlike that of <cassert> under NDEBUG. A failure
// prints the platform's assertion line and aborts. The line names the driver's source file whatever
// file the assertion stands in, so that operators find one name in their logs; its number is that
// of the line in the file where the assertion stands, and the function tells which.
#pragma once

[[noreturn]] void assertion_failed(const char* expression, unsigned line, const char* function);

// `function` is the signature to report: __PRETTY_FUNCTION__, or one that is fixed.
#define ASSERT_INVARIANT(expression, function) \
    ((expression) ? static_cast<void>(0) : assertion_failed(#expression, __LINE__, function))
