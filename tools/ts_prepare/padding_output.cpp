#include "tools/ts_prepare/padding_output.hpp"

#include <algorithm>
#include <cerrno>
#include <span>

#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>

#include "tools/ts_prepare/descriptor_io.hpp"

namespace
{

bool takes_bytes(int fd)
{
    pollfd writable{.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&writable, 1, 0) > 0;
}

// The bytes that went, -1 on failure.
ssize_t send_some(int fd, padding_output& padding, size_t bytes)
{
    if (padding.by_reference) {
        const iovec piece{.iov_base = padding.packets.data(), .iov_len = bytes};
        const ssize_t went = vmsplice(fd, &piece, 1, SPLICE_F_NONBLOCK);
        if (went >= 0 || (errno != EBADF && errno != EINVAL && errno != ENOSYS))
            return went;
        padding.by_reference = false;
    }
    if (!takes_bytes(fd)) {
        errno = EAGAIN;
        return -1;
    }
    return write_all(fd, std::span<const uint8_t>(padding.packets).first(bytes))
               ? static_cast<ssize_t>(bytes)
               : -1;
}

} // namespace

padding_output::padding_output()
{
    packets.fill(0xFF);
    for (size_t at = 0; at < packets.size(); at += ts_packet_bytes)
        write_ts_header(packets.data() + at, 0, ts_null_pid, ts_control_payload_only, 0);
}

padding_output& process_padding()
{
    static padding_output padding;
    return padding;
}

padding_result send_padding(int fd, padding_output& padding, size_t count, size_t& sent)
{
    while (count != 0) {
        const size_t packets_now = std::min(count, padding_buffer_packets);
        const ssize_t went = send_some(fd, padding, packets_now * ts_packet_bytes);
        if (went < 0 && errno == EINTR)
            continue;
        if (went <= 0)
            return went == 0 || errno == EAGAIN ? padding_result::reader_behind
                                                : padding_result::failed;

        // The rest of a packet that went in part has to follow before anything else.
        const size_t part = static_cast<size_t>(went) % ts_packet_bytes;
        if (part != 0 && !write_all(fd, std::span<const uint8_t>(padding.packets)
                                            .subspan(part, ts_packet_bytes - part)))
            return padding_result::failed;
        const size_t packets = (static_cast<size_t>(went) + ts_packet_bytes - 1) / ts_packet_bytes;
        sent += packets;
        count -= packets;
    }
    return padding_result::sent;
}
