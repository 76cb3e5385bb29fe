// A fresh directory for one run, removed with all it holds at the end.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "tests/support/bytes.hpp"

// A tree of files: path below the root to content. A directory's path ends in "/" and its content
// is empty; a symbolic link's path ends in "@" and its content is the target.
using file_map = std::map<std::string, byte_string>;

file_map files_below(const std::filesystem::path& root);

class scratch_directory
{
public:
    scratch_directory();
    ~scratch_directory();
    scratch_directory(const scratch_directory&) = delete;
    scratch_directory& operator=(const scratch_directory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

    // Makes the files, directories and links of the map.
    void add(const file_map& files) const;

    // Everything below the directory.
    [[nodiscard]] file_map files() const { return files_below(path_); }

private:
    std::filesystem::path path_;
};

// The whole content of a file.
byte_string read_file(const std::filesystem::path& path);
void write_file(const std::filesystem::path& path, const byte_string& content);
