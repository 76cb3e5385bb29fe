// The control socket: bytes that arrive whole, and cut at any place. The first byte says how.

#include <tuple>

#include <sys/socket.h>
#include <unistd.h>

#include "fuzz/fuzz_input.hpp"
#include "v2/captions/caption_intake.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_input input(data, size);
    const size_t piece_bytes = size_t{1} + input.number<uint8_t>();

    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    caption_socket.reset(comm_socket_v4_create());
    require(comm_socket_v4_connect_use_socketpair(caption_socket.get(), ends[0]) >= 0);

    const cmdopts opts;
    bool connected = true;
    while (connected && !input.empty()) {
        const auto piece = input.take(piece_bytes);
        std::ignore = send(ends[1], piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        connected = check_socket(opts);
    }
    close(ends[1]);
    while (check_socket(opts)) // ends once the packets that had arrived whole are used up
        ;

    for (const auto& [key, queue] : vtt_queues)
        require(!key.empty() && queue.size() <= 129);
    vtt_queues.clear();
    caption_socket.reset();
    return 0;
}
