#include "publisher/compose/output_directory.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>
#include <tuple>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "publisher/base/files.hpp"

namespace
{

constexpr std::string_view unfinished_prefix = ".unfinished.";
constexpr mode_t file_mode = 0644;
constexpr mode_t folder_mode = 0755;

std::string reason(const std::string& what)
{
    return fmt::format("{}: {}", what, std::strerror(errno));
}

enum class copying { done, source_short, failed };

copying copy_through_memory(int from, int to, off_t offset, uint64_t count)
{
    std::array<uint8_t, 65536> buffer;
    while (count > 0) {
        const ssize_t got =
            pread(from, buffer.data(), std::min<uint64_t>(buffer.size(), count), offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return copying::source_short;
        if (!write_fully(to, {buffer.data(), static_cast<size_t>(got)}))
            return copying::failed;
        offset += got;
        count -= static_cast<uint64_t>(got);
    }
    return copying::done;
}

copying copy_range(int from, int to, uint64_t begin, uint64_t end)
{
    auto offset = static_cast<off_t>(begin);
    uint64_t left = end - begin;
    while (left > 0) {
        const ssize_t count = copy_file_range(from, &offset, to, nullptr, left, 0);
        if (count > 0) {
            left -= static_cast<uint64_t>(count);
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG))
            return copying::failed;
        // Not between these file systems, or none of it: memory finds out.
        return copy_through_memory(from, to, offset, left);
    }
    return copying::done;
}

} // namespace

bool write_fully(int fd, std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            if (count == 0)
                errno = EIO;
            return false;
        }
        bytes = bytes.subspan(static_cast<size_t>(count));
    }
    return true;
}

std::string folder_in(const std::string& name)
{
    const size_t slash = name.rfind('/');
    return slash == std::string::npos ? "" : name.substr(0, slash);
}

std::string unfinished_name(const std::string& name)
{
    const size_t slash = name.rfind('/');
    std::string unfinished = name;
    return unfinished.insert(slash == std::string::npos ? 0 : slash + 1, unfinished_prefix);
}

bool is_unfinished_name(const std::string& name)
{
    return name.starts_with(unfinished_prefix);
}

bool output_directory::open(const std::string& path, std::string& error)
{
    std::error_code code;
    std::filesystem::create_directories(path, code);
    path_ = path;
    fd_ = descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd_) {
        error = reason(path);
        return false;
    }
    return true;
}

bool output_directory::is_there() const
{
    struct stat by_path {
    };
    struct stat by_fd {
    };
    // What cannot be looked at now is no reason to begin anew.
    if (stat(path_.c_str(), &by_path) != 0)
        return errno != ENOENT && errno != ENOTDIR;
    return fstat(fd_.get(), &by_fd) != 0 ||
           (by_path.st_ino == by_fd.st_ino && by_path.st_dev == by_fd.st_dev);
}

// A link in its place would lead elsewhere.
bool output_directory::make_folder_of(const std::string& name) const
{
    const std::string folder = folder_in(name);
    if (folder.empty())
        return true;
    if (mkdirat(fd_.get(), folder.c_str(), folder_mode) == 0) {
        std::ignore = fsync(fd_.get()); // else the folder may go with the power, once in an hour
        return true;
    }
    struct stat found {
    };
    if (errno != EEXIST || fstatat(fd_.get(), folder.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    errno = ENOTDIR;
    return S_ISDIR(found.st_mode);
}

// The name may lead to another file by now, so what was linked is looked at.
bool output_directory::link_whole(const std::string& name, const source_file& file)
{
    std::ignore = remove(name); // of a step that was not finished; an old one keeps the link from
                                // being made
    if (linkat(file.directory->get(), file.name.c_str(), fd_.get(), name.c_str(), 0) != 0) {
        if (errno == EXDEV || errno == EPERM || errno == EACCES || errno == EMLINK)
            why_no_links_ = std::strerror(errno);
        return false;
    }
    struct stat linked {
    };
    if (fstatat(fd_.get(), name.c_str(), &linked, AT_SYMLINK_NOFOLLOW) == 0 &&
        linked.st_ino == file.inode && linked.st_dev == file.device)
        return true;
    std::ignore = remove(name); // is replaced by a copy next
    return false;
}

made_file output_directory::make_segment(const std::string& name, std::span<const uint8_t> tables,
                                         std::span<const source_range> ranges)
{
    if (!make_folder_of(name)) {
        made_file made;
        made.error = reason(name);
        return made;
    }
    if (tables.empty() && ranges.size() == 1 && ranges[0].begin == 0) {
        struct stat now {
        };
        const source_file& file = *ranges[0].file;
        if (fstat(file.fd.get(), &now) == 0 &&
            static_cast<uint64_t>(now.st_size) == ranges[0].end && link_whole(name, file))
            return {.how = made_by::link, .bytes = ranges[0].end, .error = {}};
    }
    return copy(name, tables, ranges);
}

made_file output_directory::copy(const std::string& name, std::span<const uint8_t> tables,
                                 std::span<const source_range> ranges)
{
    made_file made;
    descriptor out = begin_file(name);
    if (!out) {
        made.error = reason(unfinished_name(name));
        return made;
    }
    const auto fail = [&](bool by_source) {
        made.source_failed = by_source;
        made.error =
            by_source ? fmt::format("{}: the source no longer has all of it", name) : reason(name);
        std::ignore = remove(unfinished_name(name)); // takes room that may be short
        return made;
    };
    if (!write_fully(out.get(), tables))
        return fail(false);
    made.bytes = tables.size();
    for (const source_range& range : ranges) {
        switch (copy_range(range.file->fd.get(), out.get(), range.begin, range.end)) {
        case copying::done:
            break;
        case copying::source_short:
            return fail(true);
        case copying::failed:
            return fail(false);
        }
        made.bytes += range.end - range.begin;
    }
    if (!finish_file(name, std::move(out)))
        return fail(false);
    made.how = made_by::copy;
    return made;
}

descriptor output_directory::begin_file(const std::string& name) const
{
    return descriptor(openat(fd_.get(), unfinished_name(name).c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, file_mode));
}

bool output_directory::finish_file(const std::string& name, descriptor file) const
{
    return ::close(file.release()) == 0 &&
           renameat(fd_.get(), unfinished_name(name).c_str(), fd_.get(), name.c_str()) == 0;
}

bool output_directory::write_new(const std::string& name, std::span<const uint8_t> bytes,
                                 std::string& error) const
{
    descriptor out(
        openat(fd_.get(), name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, file_mode));
    if (!out || !write_fully(out.get(), bytes) || ::close(out.release()) != 0) {
        error = reason(name);
        return false;
    }
    return true;
}

made_file output_directory::make_text(const std::string& name, const std::string& text)
{
    made_file made;
    if (!make_folder_of(name)) {
        made.error = reason(name);
    } else if (replace_texts({{name, text}}, made.error)) {
        made.how = made_by::copy;
        made.bytes = text.size();
    }
    return made;
}

bool output_directory::link_again(const std::string& made, const std::string& name) const
{
    return linkat(fd_.get(), made.c_str(), fd_.get(), name.c_str(), 0) == 0;
}

bool output_directory::replace_texts(const std::vector<std::pair<std::string, std::string>>& texts,
                                     std::string& error)
{
    for (const auto& [name, text] : texts) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
        if (!write_new(unfinished_name(name), {bytes, text.size()}, error))
            return false;
    }
    for (const auto& [name, text] : texts) {
        if (renameat(fd_.get(), unfinished_name(name).c_str(), fd_.get(), name.c_str()) != 0) {
            error = reason(name);
            return false;
        }
    }
    return true;
}

bool output_directory::flush(const std::vector<std::string>& names, std::string& error) const
{
    std::set<std::string> folders;
    for (const std::string& name : names) {
        const descriptor file = open_file(fd_.get(), name);
        if (!file || fdatasync(file.get()) != 0) {
            error = reason(name);
            return false;
        }
        folders.insert(folder_in(name));
    }
    for (const std::string& folder : folders) {
        const descriptor directory(openat(fd_.get(), folder.empty() ? "." : folder.c_str(),
                                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!directory || fsync(directory.get()) != 0) {
            error = reason(folder);
            return false;
        }
    }
    return true;
}

bool output_directory::remove(const std::string& name) const
{
    return unlinkat(fd_.get(), name.c_str(), 0) == 0 || errno == ENOENT;
}

int64_t output_directory::size_of(const std::string& name) const
{
    struct stat found {
    };
    return fstatat(fd_.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
                   S_ISREG(found.st_mode)
               ? found.st_size
               : -1;
}

std::string output_directory::read_text(const std::string& name, size_t most) const
{
    return ::read_text(fd_.get(), name, most);
}

bool output_directory::remove_folder(const std::string& folder) const
{
    return unlinkat(fd_.get(), folder.c_str(), AT_REMOVEDIR) == 0;
}

std::vector<std::string> output_directory::names(const std::string& folder) const
{
    return names_in(fd_.get(), folder);
}

disk_room output_directory::room() const
{
    struct statvfs found {
    };
    if (fstatvfs(fd_.get(), &found) != 0)
        return {};
    return {.free_bytes = uint64_t{found.f_bavail} * found.f_frsize,
            .bytes = uint64_t{found.f_blocks} * found.f_frsize};
}
