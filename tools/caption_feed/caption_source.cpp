#include "tools/caption_feed/caption_source.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <tuple>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/caption_feed/child_process.hpp"

namespace
{

int open_for_reading(const std::string& path)
{
    return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
}

[[nodiscard]] bool open_path(caption_source& source, std::string& error)
{
    source.fd = open_for_reading(source.name);
    struct stat status = {};
    if (source.fd < 0 || fstat(source.fd, &status) != 0) {
        error = "cannot open '" + source.name + "': " + std::strerror(errno);
        return false;
    }
    if (S_ISDIR(status.st_mode)) {
        error = "cannot open '" + source.name + "': " + std::strerror(EISDIR);
        return false;
    }
    source.is_fifo = S_ISFIFO(status.st_mode);
    source.is_regular_file = S_ISREG(status.st_mode);
    return true;
}

[[nodiscard]] bool start_command(caption_source& source, std::string& error)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        error = "cannot run '" + source.name + "': " + std::strerror(errno);
        return false;
    }
    source.fd = ends[0];
    source.command_pid = start_shell_command(source.name.substr(1), ends[1]);
    const int start_error = errno;
    std::ignore = close(ends[1]); // the command holds its own
    if (source.command_pid < 0 || fcntl(source.fd, F_SETFL, O_NONBLOCK) != 0) {
        error = "cannot run '" + source.name + "': " + std::strerror(start_error);
        return false;
    }
    return true;
}

// The next writer of a FIFO is waited for with a descriptor of its own: the old one would report
// the end for ever. The new one is opened first, so that no writer finds the FIFO without reader.
[[nodiscard]] bool reopen_fifo(caption_source& source)
{
    const int next = open_for_reading(source.name);
    if (next < 0)
        return false;
    std::ignore = close(source.fd); // only ever read from
    source.fd = next;
    return true;
}

} // namespace

caption_source::~caption_source()
{
    close_caption_source(*this);
    if (command_pid > 0)
        std::ignore = kill(-command_pid, SIGTERM); // it may have ended already
}

bool open_caption_source(const std::string& path_or_command, caption_source& source,
                         std::string& error)
{
    source.name = path_or_command;
    return source.name.starts_with('|') ? start_command(source, error) : open_path(source, error);
}

bool read_caption_source(caption_source& source)
{
    std::array<char, 4096> bytes; // a piece holds fewer cues than a source may have waiting
    const ssize_t got = read(source.fd, bytes.data(), bytes.size());
    if (got > 0) {
        source.reader.feed(std::string_view(bytes.data(), static_cast<size_t>(got)));
        return true;
    }
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return true;

    const int read_error = got < 0 ? errno : 0;
    source.reader.finish();
    if (read_error == 0 && source.is_fifo && reopen_fifo(source))
        return true;
    close_caption_source(source);
    errno = read_error;
    return read_error == 0;
}

void close_caption_source(caption_source& source)
{
    if (source.fd >= 0)
        std::ignore = close(source.fd); // only ever read from
    source.fd = -1;
}
