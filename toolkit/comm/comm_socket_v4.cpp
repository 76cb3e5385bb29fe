#include "toolkit/comm/comm_socket_v4.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <tuple>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "toolkit/comm/comm_wire.hpp"

struct comm_socket_v4 {
    int fd = -1;
    bool lost = false; // nothing more can be received: closed by the peer, or malformed

    comm_socket_v4_packet_ptr waiting; // decoded, not taken yet

    // Received and not yet decoded: received[begin, end). One packet of the largest size fits.
    std::array<uint8_t, comm_packet_bytes_max> received;
    size_t begin = 0;
    size_t end = 0;
};

namespace
{

bool is_connected_stream_socket(int fd)
{
    struct stat status = {};
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISSOCK(status.st_mode))
        return false;

    int type = 0;
    socklen_t type_size = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &type_size) != 0 || type != SOCK_STREAM)
        return false;

    sockaddr_storage peer = {};
    socklen_t peer_size = sizeof peer;
    return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_size) == 0;
}

bool set_close_on_exec(int fd)
{
    const int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

// Decodes the next packet, unless one is waiting already.
void decode_next(comm_socket_v4& client)
{
    if (client.waiting)
        return;
    const std::span undecoded(client.received.data() + client.begin, client.end - client.begin);
    size_t used = 0;
    switch (comm_packet_decode(undecoded, client.waiting, used)) {
    case comm_decode_result::packet:
        client.begin += used;
        break;
    case comm_decode_result::need_more:
        break;
    case comm_decode_result::malformed:
        client.lost = true;
        break;
    }
}

// One read of what has arrived. It is called with less than one packet in the buffer, so there is
// room behind it once it has moved to the front.
void receive(comm_socket_v4& client)
{
    const size_t kept = client.end - client.begin;
    std::memmove(client.received.data(), client.received.data() + client.begin, kept);
    client.begin = 0;
    client.end = kept;

    // Not O_NONBLOCK: that flag would be shared with whoever else holds this end.
    const ssize_t got = recv(client.fd, client.received.data() + client.end,
                             client.received.size() - client.end, MSG_DONTWAIT);
    if (got > 0)
        client.end += static_cast<size_t>(got);
    else if (got == 0)
        client.lost = true;
    else
        client.lost = errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
}

} // namespace

comm_socket_v4* comm_socket_v4_create()
{
    return new (std::nothrow) comm_socket_v4;
}

comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* client)
{
    comm_socket_v4_close(client);
    delete client;
    return nullptr;
}

int comm_socket_v4_connect_use_socketpair(comm_socket_v4* client, int fd)
{
    if (client == nullptr || client->fd >= 0 || client->lost)
        return -1;
    if (!is_connected_stream_socket(fd) || !set_close_on_exec(fd))
        return -1;
    client->fd = fd;
    return 0;
}

int comm_socket_v4_idle(comm_socket_v4* client)
{
    if (client == nullptr || client->fd < 0)
        return -1;

    decode_next(*client);
    if (!client->waiting && !client->lost) {
        receive(*client);
        decode_next(*client);
    }
    return client->lost && !client->waiting ? -1 : 0;
}

comm_socket_v4_packet* comm_socket_v4_client_get_packet_from_server(comm_socket_v4* client)
{
    if (client == nullptr)
        return nullptr;
    decode_next(*client);
    return client->waiting.release();
}

void comm_socket_v4_close(comm_socket_v4* client)
{
    if (client == nullptr || client->fd < 0)
        return;
    std::ignore = close(client->fd); // only ever read from, so no data can be lost here
    client->fd = -1;
    client->lost = true;
    client->waiting.reset();
    client->begin = client->end = 0;
}
