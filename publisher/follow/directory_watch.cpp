#include "publisher/follow/directory_watch.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <tuple>

#include <sys/inotify.h>

namespace
{

// Not IN_MODIFY: the segmenter writes packet by packet.
constexpr uint32_t events =
    IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

} // namespace

bool directory_watch::watch(const std::string& path, std::string& error)
{
    if (!fd_) // at first, or until another program gives one back
        fd_ = descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    // The same directory gives the same watch, another one in its place a new one.
    const int added = fd_ ? inotify_add_watch(fd_.get(), path.c_str(), events) : -1;
    if (added < 0) {
        error = path + ": " + std::strerror(errno);
        return errno == ENOENT; // it will be looked for
    }
    if (watch_ >= 0 && added != watch_)
        std::ignore = inotify_rm_watch(fd_.get(), watch_); // goes with its directory, if not before
    watch_ = added;
    return true;
}

void directory_watch::drain()
{
    std::array<char, 16384> buffer;
    while (read(fd_.get(), buffer.data(), buffer.size()) > 0) {
    }
}
