#include "toolkit/comm/comm_sender.hpp"

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const std::vector<uint8_t> some_packet(1000, 'p');

class CommSender : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(comm_sender_open(sender, receivers_end)); }
    void TearDown() override { close_receiver(); }

    void close_receiver()
    {
        if (receivers_end >= 0)
            close(receivers_end);
        receivers_end = -1;
    }

    // Everything that can be read without waiting.
    size_t drain() const
    {
        size_t total = 0;
        std::vector<uint8_t> bytes(100000);
        ssize_t got = 0;
        while ((got = recv(receivers_end, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0)
            total += static_cast<size_t>(got);
        return total;
    }

    comm_sender sender;
    int receivers_end = -1;
};

TEST_F(CommSender, BothEndsCloseOnExec)
{
    EXPECT_EQ(fcntl(sender.fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(receivers_end, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(comm_keep_across_exec(receivers_end));
    EXPECT_EQ(fcntl(receivers_end, F_GETFD), 0);
    EXPECT_FALSE(comm_keep_across_exec(-1));
}

TEST_F(CommSender, SendsWholePackets)
{
    EXPECT_EQ(sender.send(some_packet), comm_send_result::sent);
    EXPECT_EQ(sender.send(some_packet), comm_send_result::sent);
    EXPECT_EQ(sender.pending_bytes(), 0U);
    EXPECT_EQ(drain(), 2000U);
}

TEST_F(CommSender, SendWaitsForASlowReceiver)
{
    const std::vector<uint8_t> large(4000000, 'p');
    size_t received = 0;
    std::thread receiver([&] {
        std::vector<uint8_t> bytes(10000);
        while (received < large.size()) {
            const ssize_t got = read(receivers_end, bytes.data(), bytes.size());
            ASSERT_GT(got, 0);
            received += static_cast<size_t>(got);
        }
    });
    EXPECT_EQ(sender.send(large), comm_send_result::sent);
    receiver.join();
    EXPECT_EQ(received, large.size());
}

TEST_F(CommSender, FlushDoesNotWait)
{
    const std::vector<uint8_t> large(1000000, 'p');
    sender.queue(large);
    EXPECT_EQ(sender.flush(), comm_send_result::pending);
    EXPECT_GT(sender.pending_bytes(), 0U);

    size_t received = 0;
    while (received < large.size()) {
        received += drain();
        EXPECT_NE(sender.flush(), comm_send_result::peer_gone);
    }
    EXPECT_EQ(sender.flush(), comm_send_result::sent);
    EXPECT_EQ(received, large.size());
}

// A SIGPIPE would end the test program.
TEST_F(CommSender, PeerGone)
{
    close_receiver();
    EXPECT_EQ(sender.send(some_packet), comm_send_result::peer_gone);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(sender.pending_bytes(), 0U);
    sender.queue(some_packet);
    EXPECT_EQ(sender.pending_bytes(), 0U);
    EXPECT_EQ(sender.flush(), comm_send_result::peer_gone);
}

TEST_F(CommSender, PeerGoneInTheMiddleOfAPacket)
{
    sender.queue(std::vector<uint8_t>(1000000, 'p'));
    EXPECT_EQ(sender.flush(), comm_send_result::pending);
    close_receiver();
    EXPECT_EQ(sender.flush(), comm_send_result::peer_gone);
    EXPECT_EQ(sender.send(some_packet), comm_send_result::peer_gone);
}

TEST_F(CommSender, ClosedByItself)
{
    sender.close();
    EXPECT_EQ(sender.send(some_packet), comm_send_result::failed);
    EXPECT_EQ(errno, EBADF);
    uint8_t byte = 0;
    EXPECT_EQ(read(receivers_end, &byte, 1), 0);
}

TEST(CommSenderAlone, NoSocket)
{
    comm_sender sender;
    EXPECT_EQ(sender.flush(), comm_send_result::sent);
    EXPECT_EQ(sender.send(some_packet), comm_send_result::failed);
}

} // namespace
