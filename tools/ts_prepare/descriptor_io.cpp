#include "tools/ts_prepare/descriptor_io.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

// Takes so many bytes off the front of the pieces from `first` on; returns the first that is left.
size_t pass_over(std::vector<iovec>& pieces, size_t first, size_t bytes)
{
    while (first < pieces.size() && bytes >= pieces[first].iov_len)
        bytes -= pieces[first++].iov_len;
    if (bytes != 0) {
        pieces[first].iov_base = static_cast<uint8_t*>(pieces[first].iov_base) + bytes;
        pieces[first].iov_len -= bytes;
    }
    return first;
}

// After a failed call: true to try again, once the descriptor takes bytes.
bool may_try_again(int fd)
{
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
        return false;
    pollfd writable{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&writable, 1, -1) >= 0 || errno == EINTR;
}

} // namespace

bool write_all(int fd, std::vector<iovec>& pieces)
{
    size_t first = 0;
    while (first < pieces.size()) {
        const size_t count = std::min(pieces.size() - first, size_t{IOV_MAX});
        const ssize_t written = writev(fd, pieces.data() + first, static_cast<int>(count));
        if (written >= 0)
            first = pass_over(pieces, first, static_cast<size_t>(written));
        else if (!may_try_again(fd))
            return false;
    }
    return true;
}

bool write_all(int fd, std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written >= 0)
            bytes = bytes.subspan(static_cast<size_t>(written));
        else if (!may_try_again(fd))
            return false;
    }
    return true;
}

size_t bytes_waiting(int fd)
{
    int bytes = 0;
    return ioctl(fd, FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<size_t>(bytes) : 0;
}

bool is_readable(int fd)
{
    pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&readable, 1, 0) > 0;
}

size_t widen_pipe(int fd, size_t wanted)
{
    const int now = fcntl(fd, F_GETPIPE_SZ);
    if (now <= 0)
        return 0;
    for (size_t size = wanted; size > static_cast<size_t>(now); size /= 2) {
        const int widened = fcntl(fd, F_SETPIPE_SZ, static_cast<int>(size));
        if (widened > 0)
            return static_cast<size_t>(widened);
    }
    return static_cast<size_t>(now);
}
