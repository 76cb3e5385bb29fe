#include "tests/support/caption_peer.hpp"

#include <array>
#include <stdexcept>

#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t look_ahead_bytes = 8192 * packet_bytes;
constexpr size_t pass_packets = 16;

// The packets that the first three passes process: while the look-ahead stays unread behind them.
constexpr size_t start_up_packets =
    (start_up_fill_bytes - look_ahead_bytes - packet_bytes) / packet_bytes + 1;
constexpr size_t start_up_passes = 3;

// What is read up to the pass with this index, counted from the first of the stepped ones.
constexpr size_t bytes_read_up_to(size_t pass)
{
    return (start_up_packets + (pass + 1) * pass_packets) * packet_bytes + look_ahead_bytes;
}

} // namespace

control_socket::control_socket()
{
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0)
        throw std::runtime_error("socketpair failed");
    peers_end_ = ends[0];
    programs_end_ = ends[1];
}

control_socket::~control_socket()
{
    close_peer();
    close(programs_end_);
}

size_t control_socket::send(std::span<const uint8_t> bytes)
{
    const ssize_t sent =
        ::send(peers_end_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent > 0 ? static_cast<size_t>(sent) : 0;
}

void control_socket::close_peer()
{
    if (peers_end_ >= 0)
        close(peers_end_);
    peers_end_ = -1;
}

byte_string idle_caption_packet()
{
    return build_caption_packet({.command = "idle"});
}

stepped_stream::stepped_stream(const programme_fields& programme) : stream(programme)
{
    stream.tables(3).null_until(start_up_packets * packet_bytes);
}

stepped_stream& stepped_stream::pass(const byte_string& captions)
{
    passes_++;
    const size_t end = (start_up_packets + passes_ * pass_packets) * packet_bytes;
    if (stream.mark() > end)
        throw std::logic_error("more than 16 packets in a pass");
    stream.null_until(end);
    append(captions_, captions);
    return *this;
}

stepped_stream& stepped_stream::keyframe(int64_t at_ms, const byte_string& captions)
{
    stream.keyframe(at_ms * 90);
    return pass(captions);
}

stepped_stream& stepped_stream::picture(int64_t at_ms, const byte_string& captions)
{
    stream.picture(at_ms * 90);
    return pass(captions);
}

byte_string stepped_stream::all_captions() const
{
    byte_string all;
    for (size_t i = 0; i < start_up_passes; i++)
        append(all, idle_caption_packet());
    append(all, captions_);
    return all;
}

program_input stepped_stream::input()
{
    if (passes_ > 0)
        stream.null_until(bytes_read_up_to(passes_ - 1));
    program_input input{.from = program_input::source::pieces,
                        .bytes = stream.between(0, start_up_fill_bytes)};
    input.next = [whole = stream.bytes(), done = start_up_fill_bytes,
                  pass = size_t{0}](byte_string& piece, const std::filesystem::path&) mutable {
        if (done == whole.size())
            return false;
        const size_t end = bytes_read_up_to(pass++);
        piece.assign(whole.begin() + static_cast<std::ptrdiff_t>(done),
                     whole.begin() + static_cast<std::ptrdiff_t>(end));
        done = end;
        return true;
    };
    return input;
}
