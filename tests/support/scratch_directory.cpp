#include "tests/support/scratch_directory.hpp"

#include <fstream>
#include <stdexcept>
#include <system_error>

#include <stdlib.h>

namespace fs = std::filesystem;

file_map files_below(const fs::path& root)
{
    file_map found;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        const std::string name = entry.path().lexically_relative(root).string();
        if (entry.is_symlink())
            found[name + "@"] = bytes_of(fs::read_symlink(entry.path()).string());
        else if (entry.is_directory())
            found[name + "/"] = {};
        else
            found[name] = read_file(entry.path());
    }
    return found;
}

scratch_directory::scratch_directory()
{
    std::string name = (fs::temp_directory_path() / "vorn_test.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed for " + name);
    path_ = name;
}

scratch_directory::~scratch_directory()
{
    std::error_code ignored; // a test that took permissions away has already failed or said so
    fs::remove_all(path_, ignored);
}

void scratch_directory::add(const file_map& files) const
{
    for (const auto& [name, content] : files) {
        const fs::path target = path_ / name;
        if (name.ends_with('/')) {
            fs::create_directories(target);
            continue;
        }
        fs::create_directories(target.parent_path());
        if (name.ends_with('@'))
            fs::create_symlink(std::string(content.begin(), content.end()),
                               path_ / name.substr(0, name.size() - 1));
        else
            write_file(target, content);
    }
}

byte_string read_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    byte_string content(fs::file_size(path));
    in.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!in)
        throw std::runtime_error("cannot read " + path.string());
    return content;
}

void write_file(const fs::path& path, const byte_string& content)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(content.data()),
              static_cast<std::streamsize>(content.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}
