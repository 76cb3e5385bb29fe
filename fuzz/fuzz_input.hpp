// Takes the bytes of a fuzz input apart. Past the end every read gives zeros or nothing.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

class fuzz_input
{
public:
    fuzz_input(const uint8_t* data, size_t size) : rest_(data, size) {}

    template <typename T>
    T number()
    {
        T value{};
        const auto bytes = take(sizeof(T));
        if (!bytes.empty())
            std::memcpy(&value, bytes.data(), bytes.size());
        return value;
    }

    std::span<const uint8_t> take(size_t count)
    {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    // A length byte, and that many characters.
    std::string text()
    {
        const auto bytes = take(number<uint8_t>());
        return {bytes.begin(), bytes.end()};
    }

    [[nodiscard]] bool empty() const { return rest_.empty(); }
    [[nodiscard]] std::span<const uint8_t> rest() const { return rest_; }

private:
    std::span<const uint8_t> rest_;
};

// Holds whatever the outcome of a target may not contradict; libFuzzer reports the abort.
inline void require(bool holds)
{
    if (!holds)
        __builtin_trap();
}
