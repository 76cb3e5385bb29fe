// A file descriptor with one owner, which closes it.
#pragma once

#include <tuple>
#include <utility>

#include <unistd.h>

class descriptor
{
public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
    ~descriptor() { reset(); }
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }

    void reset()
    {
        if (fd_ >= 0)
            std::ignore = close(fd_); // of a file that was read, or whose write was checked before
        fd_ = -1;
    }

    // Gives the descriptor to the caller, who closes it.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};
