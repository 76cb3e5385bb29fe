// Wakes up when something happens in a directory. Nothing relies on it: what is missed is found at
// the next look.
#pragma once

#include <string>

#include "publisher/base/descriptor.hpp"

class directory_watch
{
public:
    // Watches the directory that stands under the path now; false: it cannot be watched, and
    // `error` says why.
    bool watch(const std::string& path, std::string& error);

    [[nodiscard]] int fd() const { return fd_.get(); }

    // Forgets what has happened.
    void drain();

private:
    descriptor fd_;
    int watch_ = -1;
};
