// Makes a scratch directory the process's working directory while it lives, for code that takes
// file names relative to it.
#pragma once

#include "tests/support/scratch_directory.hpp"

class scratch_working_directory
{
public:
    scratch_working_directory() : before_(std::filesystem::current_path())
    {
        std::filesystem::current_path(scratch_.path());
    }
    ~scratch_working_directory() { std::filesystem::current_path(before_); }
    scratch_working_directory(const scratch_working_directory&) = delete;
    scratch_working_directory& operator=(const scratch_working_directory&) = delete;

    void add(const file_map& files) const { scratch_.add(files); }
    [[nodiscard]] file_map files() const { return scratch_.files(); }

private:
    scratch_directory scratch_;
    std::filesystem::path before_;
};
