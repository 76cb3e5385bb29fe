#include "toolkit/comm/comm_sender.hpp"

#include <cerrno>
#include <tuple>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

void drop_sent_bytes(comm_sender& sender)
{
    sender.unsent.erase(sender.unsent.begin(),
                        sender.unsent.begin() + static_cast<ptrdiff_t>(sender.unsent_begin));
    sender.unsent_begin = 0;
}

comm_send_result end_connection(comm_sender& sender, int error)
{
    sender.ended_by = error == EPIPE || error == ECONNRESET ? comm_send_result::peer_gone
                                                            : comm_send_result::failed;
    sender.ended_errno = error;
    sender.unsent.clear();
    sender.unsent_begin = 0;
    return sender.ended_by;
}

// Waits until the socket takes bytes again or is found broken.
bool wait_writable(int fd)
{
    pollfd writable{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&writable, 1, -1) >= 0 || errno == EINTR;
}

} // namespace

comm_sender::~comm_sender()
{
    close();
}

comm_send_result comm_sender::send(std::span<const uint8_t> packet)
{
    queue(packet);
    for (;;) {
        const comm_send_result result = flush();
        if (result != comm_send_result::pending)
            return result;
        if (!wait_writable(fd))
            return end_connection(*this, errno);
    }
}

void comm_sender::queue(std::span<const uint8_t> packet)
{
    if (ended_by != comm_send_result::sent)
        return;
    drop_sent_bytes(*this);
    unsent.insert(unsent.end(), packet.begin(), packet.end());
}

comm_send_result comm_sender::flush()
{
    if (ended_by != comm_send_result::sent) {
        errno = ended_errno;
        return ended_by;
    }
    while (pending_bytes() != 0) {
        const ssize_t n =
            ::send(fd, unsent.data() + unsent_begin, pending_bytes(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0)
            unsent_begin += static_cast<size_t>(n);
        else if (errno == EAGAIN || errno == EWOULDBLOCK)
            return comm_send_result::pending;
        else if (errno != EINTR)
            return end_connection(*this, errno);
    }
    drop_sent_bytes(*this);
    return comm_send_result::sent;
}

void comm_sender::close()
{
    if (fd < 0)
        return;
    std::ignore = ::close(fd); // what the kernel has taken reaches the receiver all the same
    fd = -1;
    std::ignore = end_connection(*this, EBADF);
}

bool comm_sender_open(comm_sender& sender, int& receivers_end)
{
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return false;

    sender.close();
    sender.fd = ends[0];
    sender.ended_by = comm_send_result::sent;
    sender.ended_errno = 0;
    receivers_end = ends[1];
    return true;
}

bool comm_keep_across_exec(int fd)
{
    const int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC) == 0;
}
