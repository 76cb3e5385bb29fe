#include "toolkit/comm/comm_socket_v4.hpp"

#include <fstream>
#include <optional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/address_sanitizer.hpp"
#include "toolkit/comm/comm_packet_builder.hpp"
#include "toolkit/comm/comm_wire.hpp"

namespace
{

using bytes = std::vector<uint8_t>;

bytes numbered_packet(uint64_t number, size_t padding = 0)
{
    comm_packet_builder builder;
    EXPECT_TRUE(builder.begin("vtt"));
    EXPECT_TRUE(builder.add_uint64("number", number));
    if (padding != 0) {
        EXPECT_TRUE(builder.add_text("padding", std::string(padding, 'x')));
    }
    return builder.wire;
}

class CommSocket : public testing::Test
{
protected:
    void SetUp() override
    {
        int ends[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        peer = ends[0];
        ASSERT_NE(client, nullptr);
        ASSERT_GE(comm_socket_v4_connect_use_socketpair(client.get(), ends[1]), 0);
        clients_end = ends[1];
    }

    void TearDown() override { close_peer(); }

    void close_peer()
    {
        if (peer >= 0)
            close(peer);
        peer = -1;
    }

    void write_bytes(std::span<const uint8_t> wire) const
    {
        ASSERT_EQ(send(peer, wire.data(), wire.size(), MSG_NOSIGNAL | MSG_DONTWAIT),
                  static_cast<ssize_t>(wire.size()));
    }

    int idle() const { return comm_socket_v4_idle(client.get()); }

    comm_socket_v4_packet_ptr take() const
    {
        return comm_socket_v4_packet_ptr(
            comm_socket_v4_client_get_packet_from_server(client.get()));
    }

    // The number in the packet that a pass yields; none when it yields no packet.
    std::optional<uint64_t> pass() const
    {
        EXPECT_GE(idle(), 0);
        const comm_socket_v4_packet_ptr packet = take();
        if (!packet)
            return {};
        return *comm_socket_v4_packet_get_nv_pair_value_uint64(packet.get(), packet->nv_entry(0));
    }

    comm_socket_v4_ptr client{comm_socket_v4_create()};
    int peer = -1;
    int clients_end = -1;
};

TEST_F(CommSocket, NothingToDo)
{
    EXPECT_EQ(idle(), 0);
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(idle(), 0);
}

TEST_F(CommSocket, TheDescriptorIsOursAndClosesOnExec)
{
    EXPECT_EQ(fcntl(clients_end, F_GETFD), FD_CLOEXEC);
    comm_socket_v4_close(client.get());
    EXPECT_EQ(fcntl(clients_end, F_GETFD), -1);
    EXPECT_LT(idle(), 0);
    EXPECT_EQ(take(), nullptr);
    comm_socket_v4_close(client.get());
}

TEST_F(CommSocket, DestroyCloses)
{
    client.reset();
    EXPECT_EQ(fcntl(clients_end, F_GETFD), -1);
}

TEST_F(CommSocket, TheFileStatusFlagsAreNotTouched)
{
    EXPECT_EQ(fcntl(clients_end, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(CommSocket, OnePacketPerPass)
{
    bytes three;
    for (const uint64_t number : {1U, 2U, 3U}) {
        const bytes wire = numbered_packet(number);
        three.insert(three.end(), wire.begin(), wire.end());
    }
    write_bytes(three);
    EXPECT_EQ(pass(), 1U);
    EXPECT_EQ(pass(), 2U);
    EXPECT_EQ(pass(), 3U);
    EXPECT_EQ(pass(), std::nullopt);
}

TEST_F(CommSocket, AWaitingPacketNeedsNoIdle)
{
    bytes two = numbered_packet(1);
    const bytes second = numbered_packet(2);
    two.insert(two.end(), second.begin(), second.end());
    write_bytes(two);
    EXPECT_EQ(idle(), 0);
    EXPECT_NE(take(), nullptr);
    EXPECT_NE(take(), nullptr);
    EXPECT_EQ(take(), nullptr);
}

TEST_F(CommSocket, ByteByByte)
{
    for (const uint64_t number : {1U, 2U}) {
        const bytes wire = numbered_packet(number);
        for (size_t i = 0; i + 1 < wire.size(); ++i) {
            write_bytes(std::span(wire).subspan(i, 1));
            EXPECT_EQ(pass(), std::nullopt);
        }
        write_bytes(std::span(wire).last(1));
        EXPECT_EQ(pass(), number);
    }
}

TEST_F(CommSocket, LargestPackets)
{
    // Header, command, two pairs' headers and names, and the number's value.
    constexpr size_t padding = 65536 - 12 - 3 - (8 + 6 + 8) - (8 + 7);
    for (const uint64_t number : {1U, 2U, 3U}) {
        const bytes wire = numbered_packet(number, padding);
        ASSERT_EQ(wire.size(), comm_packet_bytes_max);
        write_bytes(std::span(wire).first(40000));
        EXPECT_EQ(pass(), std::nullopt);
        write_bytes(std::span(wire).subspan(40000));
        EXPECT_EQ(pass(), number);
    }
}

TEST_F(CommSocket, ClosedByThePeer)
{
    close_peer();
    EXPECT_LT(idle(), 0);
    EXPECT_LT(idle(), 0);
    EXPECT_EQ(take(), nullptr);
}

TEST_F(CommSocket, WholePacketsComeBeforeTheLoss)
{
    write_bytes(numbered_packet(1));
    write_bytes(numbered_packet(2));
    close_peer();
    EXPECT_EQ(pass(), 1U);
    EXPECT_EQ(pass(), 2U);
    EXPECT_LT(idle(), 0);
    EXPECT_EQ(take(), nullptr);
}

TEST_F(CommSocket, HalfAPacketThenClosed)
{
    const bytes wire = numbered_packet(2);
    write_bytes(numbered_packet(1));
    write_bytes(std::span(wire).first(wire.size() / 2));
    close_peer();
    EXPECT_EQ(pass(), 1U);
    EXPECT_LT(idle(), 0);
    EXPECT_EQ(take(), nullptr);
}

TEST_F(CommSocket, GarbageBreaksTheConnection)
{
    write_bytes(numbered_packet(1));
    write_bytes(bytes(100, 0x47));
    EXPECT_EQ(pass(), 1U);
    EXPECT_LT(idle(), 0);
    EXPECT_EQ(take(), nullptr);

    write_bytes(numbered_packet(2));
    EXPECT_LT(idle(), 0);
    EXPECT_EQ(take(), nullptr);
}

TEST_F(CommSocket, MalformedBodyBreaksTheConnection)
{
    bytes wire = numbered_packet(1);
    ++wire[comm_pair_count_at];
    write_bytes(wire);
    EXPECT_LT(idle(), 0);
    EXPECT_EQ(take(), nullptr);
}

size_t resident_kib()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        size_t kib = 0;
        if (word == "VmRSS:" && status >> kib)
            return kib;
    }
    return 0;
}

TEST_F(CommSocket, ABurstStaysInTheKernel)
{
    constexpr uint64_t packets = 100000;
    const size_t before = resident_kib();

    std::vector<uint8_t> unsent;
    uint64_t built = 0;
    uint64_t expected = 0;
    while (expected < packets) {
        // The peer writes whenever the socket takes anything at all.
        for (;;) {
            if (unsent.empty() && built < packets)
                unsent = numbered_packet(built++);
            if (unsent.empty())
                break;
            const ssize_t n = send(peer, unsent.data(), unsent.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0)
                break;
            unsent.erase(unsent.begin(), unsent.begin() + n);
        }
        ASSERT_EQ(pass(), expected);
        ++expected;
    }
    EXPECT_EQ(pass(), std::nullopt);
    if (!sanitized) {
        EXPECT_LT(resident_kib(), before + 4096);
    }
}

TEST_F(CommSocket, NothingIsReadWhileAPacketWaits)
{
    write_bytes(numbered_packet(1));
    EXPECT_EQ(idle(), 0);
    write_bytes(numbered_packet(2));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(idle(), 0);
    EXPECT_NE(take(), nullptr);
    EXPECT_EQ(take(), nullptr); // still with the kernel
    EXPECT_EQ(pass(), 2U);
}

TEST_F(CommSocket, ASecondDescriptorIsRefused)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_LT(comm_socket_v4_connect_use_socketpair(client.get(), ends[0]), 0);
    EXPECT_EQ(close(ends[0]), 0);
    EXPECT_EQ(close(ends[1]), 0);
}

TEST(CommSocketAttach, PeerThatHasClosedAlready)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const bytes wire = numbered_packet(7);
    ASSERT_EQ(write(ends[0], wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
    ASSERT_EQ(close(ends[0]), 0);

    const comm_socket_v4_ptr client(comm_socket_v4_create());
    ASSERT_GE(comm_socket_v4_connect_use_socketpair(client.get(), ends[1]), 0);
    EXPECT_EQ(comm_socket_v4_idle(client.get()), 0);
    EXPECT_NE(comm_socket_v4_packet_ptr(comm_socket_v4_client_get_packet_from_server(client.get())),
              nullptr);
    EXPECT_LT(comm_socket_v4_idle(client.get()), 0);
}

void expect_refused(std::string_view name, int fd)
{
    SCOPED_TRACE(name);
    const comm_socket_v4_ptr client(comm_socket_v4_create());
    EXPECT_LT(comm_socket_v4_connect_use_socketpair(client.get(), fd), 0);
    EXPECT_LT(comm_socket_v4_idle(client.get()), 0);
    EXPECT_EQ(comm_socket_v4_client_get_packet_from_server(client.get()), nullptr);
    if (fd >= 0) {
        EXPECT_EQ(close(fd), 0); // still the caller's
    }
}

TEST(CommSocketAttach, WrongDescriptors)
{
    int pipe_ends[2] = {-1, -1};
    ASSERT_EQ(pipe(pipe_ends), 0);
    int datagram_ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, datagram_ends), 0);
    int packet_ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, packet_ends), 0);
    const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(listen(listening, 1), -1); // unbound; the socket is good for nothing all the same

    expect_refused("pipe", pipe_ends[0]);
    expect_refused("pipe", pipe_ends[1]);
    expect_refused("datagram socket", datagram_ends[0]);
    expect_refused("datagram socket", datagram_ends[1]);
    expect_refused("seqpacket socket", packet_ends[0]);
    expect_refused("seqpacket socket", packet_ends[1]);
    expect_refused("unconnected stream socket", listening);
    expect_refused("file", open("/dev/null", O_RDONLY));
    expect_refused("negative", -1);
    expect_refused("most negative", INT32_MIN);
}

TEST(CommSocketAttach, ClosedDescriptor)
{
    const int fd = open("/dev/null", O_RDONLY);
    ASSERT_EQ(close(fd), 0);
    const comm_socket_v4_ptr client(comm_socket_v4_create());
    EXPECT_LT(comm_socket_v4_connect_use_socketpair(client.get(), fd), 0);
}

TEST(CommSocketAttach, NoClient)
{
    EXPECT_LT(comm_socket_v4_connect_use_socketpair(nullptr, 0), 0);
    EXPECT_LT(comm_socket_v4_idle(nullptr), 0);
    EXPECT_EQ(comm_socket_v4_client_get_packet_from_server(nullptr), nullptr);
    comm_socket_v4_close(nullptr);
    comm_socket_v4_destroy(nullptr);
}

} // namespace
