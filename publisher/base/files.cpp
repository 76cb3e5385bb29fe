#include "publisher/base/files.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <tuple>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "publisher/base/clock.hpp"

namespace
{

constexpr size_t most_name_bytes = 255; // NAME_MAX of the usual file systems

} // namespace

bool is_file_name(std::string_view name)
{
    return !name.empty() && name.size() <= most_name_bytes && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

descriptor open_file(int directory, const std::string& name)
{
    const size_t slash = name.rfind('/');
    if (slash != std::string::npos) {
        const descriptor folder(openat(directory, name.substr(0, slash).c_str(),
                                       O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return folder ? open_file(folder.get(), name.substr(slash + 1)) : descriptor();
    }
    descriptor fd(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat found {
    };
    if (!fd || fstat(fd.get(), &found) != 0 || !S_ISREG(found.st_mode))
        return {};
    return fd;
}

std::vector<std::string> names_in(int directory, const std::string& folder)
{
    std::vector<std::string> names;
    descriptor fd(
        openat(directory, folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> opened(fd ? fdopendir(fd.get()) : nullptr, closedir);
    if (!opened)
        return names;
    std::ignore = fd.release(); // it has another owner
    while (const dirent* entry = readdir(opened.get()))
        names.emplace_back(entry->d_name);
    return names;
}

std::string read_text(int directory, const std::string& name, size_t most)
{
    const descriptor in = open_file(directory, name);
    std::string text;
    std::array<char, 16384> buffer;
    while (in && text.size() < most) {
        const ssize_t count = read(in.get(), buffer.data(), buffer.size());
        if (count <= 0)
            break;
        text.append(buffer.data(), static_cast<size_t>(count));
    }
    return text;
}

int64_t file_time_ms(const descriptor& file)
{
    struct stat found {
    };
    if (fstat(file.get(), &found) != 0 || found.st_mtim.tv_sec <= 0)
        return 0;
    return int64_t{found.st_mtim.tv_sec} * 1000 + found.st_mtim.tv_nsec / 1000000;
}

int64_t written_ms(const descriptor& file)
{
    const int64_t now_ms = unix_ms();
    const int64_t file_ms = file_time_ms(file);
    return file_ms > 0 ? std::min(file_ms, now_ms) : now_ms;
}
