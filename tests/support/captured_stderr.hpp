// What a piece of the program prints on standard error.
#pragma once

#include <string>

#include <gtest/gtest.h>

template <typename Action>
std::string stderr_of(Action&& action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}
