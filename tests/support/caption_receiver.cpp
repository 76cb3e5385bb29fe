// Stands in for vorn_mpegts_to_hls where a test looks at what reaches it over the control socket:
//
//     caption_receiver --anon-sock N [OPTION ...]
//
// prints a line for each "vtt" packet and reads standard input to its end. It ends when both have
// ended, or as the options say.
//     --until N     after N packets
//     --status S    with this exit status
//     --signal S    killed by this signal
//     --hold FILE   look at the socket only once this file is there, and tell how many bytes wait

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "toolkit/comm/comm_socket_v4.hpp"

namespace
{

struct receiver_options {
    int socket = -1;
    long until = -1;
    int status = 0;
    int signal = 0;
    std::string hold; // a file's name; empty: do not wait
};

// The socket has to come first: that is where the feeder promises to put it.
receiver_options options_of(int argc, char* argv[])
{
    receiver_options options;
    if (argc < 3 || std::string(argv[1]) != "--anon-sock")
        return options;
    options.socket = atoi(argv[2]);
    for (int i = 3; i < argc; ++i) {
        const std::string word = argv[i];
        const int number = i + 1 < argc ? atoi(argv[i + 1]) : 0;
        if (word == "--until")
            options.until = number;
        else if (word == "--status")
            options.status = number;
        else if (word == "--signal")
            options.signal = number;
        else if (word == "--hold" && i + 1 < argc)
            options.hold = argv[i + 1];
    }
    return options;
}

void print_cue(const comm_socket_v4_packet* packet)
{
    for (unsigned long i = 0; i < packet->nv_entries(); ++i) {
        const auto* pair = packet->nv_entry(i);
        std::string text = comm_socket_v4_packet_get_nv_pair_value_text(packet, pair);
        std::ranges::replace(text, '\n', '|');
        printf("%s%s", i == 0 ? "" : " ", text.c_str());
    }
    printf("\n");
    fflush(stdout); // a test may be waiting for the line
}

struct receiver {
    receiver_options options;
    comm_socket_v4_ptr client{comm_socket_v4_create()};
    bool connected = true;
    bool has_input = true;
    long cues = 0;
    size_t input_bytes = 0;
};

bool listens(receiver& r)
{
    if (!r.options.hold.empty() && access(r.options.hold.c_str(), F_OK) == 0) {
        r.options.hold.clear();
        int waiting = 0;
        if (ioctl(r.options.socket, FIONREAD, &waiting) == 0)
            printf("%d bytes waited\n", waiting);
    }
    return r.connected && r.options.hold.empty();
}

// False when nothing has come.
bool take_packet(receiver& r)
{
    if (comm_socket_v4_idle(r.client.get()) < 0) {
        r.connected = false;
        return false;
    }
    const comm_socket_v4_packet_ptr packet(
        comm_socket_v4_client_get_packet_from_server(r.client.get()));
    if (!packet)
        return false;
    if (packet->status() == 3 && strcmp(packet->command(), "vtt") == 0) {
        ++r.cues;
        print_cue(packet.get());
    }
    return true;
}

void read_input(receiver& r)
{
    pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    if (!r.has_input || poll(&input, 1, 0) <= 0)
        return;
    std::array<char, 65536> bytes;
    const ssize_t got = read(STDIN_FILENO, bytes.data(), bytes.size());
    r.has_input = got > 0;
    r.input_bytes += got > 0 ? static_cast<size_t>(got) : 0;
}

} // namespace

int main(int argc, char* argv[])
{
    receiver r;
    r.options = options_of(argc, argv);
    if (comm_socket_v4_connect_use_socketpair(r.client.get(), r.options.socket) < 0) {
        fprintf(stderr, "no control socket\n");
        return 99;
    }

    while ((r.connected || r.has_input) && r.cues != r.options.until) {
        read_input(r);
        if (listens(r))
            std::ignore = take_packet(r);
        if (!r.has_input && r.options.until < 0) {
            while (listens(r) && take_packet(r)) { // what came before the input ended
            }
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    printf("%zu bytes of input\n", r.input_bytes);
    fflush(stdout);
    if (r.options.signal != 0)
        raise(r.options.signal);
    return r.options.status;
}
