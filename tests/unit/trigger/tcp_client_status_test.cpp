#include "trigger/tcp_trigger_client.h"

#include "trigger/trigger_listener.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

// What the status shows of a connection, kept in its record: a connection
// whose daemon side is a TCPTriggerClient in tcp_clients and whose other
// side the test writes to.
class TcpPeerRecordsTest : public testing::Test {
protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        fd_ = ends[0];
        peer_ = ends[1];
        tcp_clients[fd_].take_fd(fd_);
        sockaddr_in address{};
        address.sin_port = htons(4711);
        tcp_clients[fd_].peer = address;
    }
    void TearDown() override
    {
        drop_all_tcp_clients();
        close(peer_);
    }

    void send_and_read(const std::string& text)
    {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), send(peer_, text.data(), text.size(), 0));
        tcp_clients[fd_].idle();
    }

    const TCPTriggerClient& record() { return tcp_clients.at(fd_); }
    const char* state() { return record().state_name(); }

    int fd_ = -1;
    int peer_ = -1;
};

TEST_F(TcpPeerRecordsTest, RecordKeepsThePeerAndCountsMessages)
{
    EXPECT_EQ(4711, ntohs(record().peer.sin_port));
    send_and_read("HELLO\na=1\n\nBYE\n\n");
    EXPECT_EQ(2u, record().messages);
}

TEST_F(TcpPeerRecordsTest, StateIsIdleReadingOrStalled)
{
    EXPECT_STREQ("idle", state());
    send_and_read("HEL");
    EXPECT_STREQ("reading", state());
    send_and_read("LO\n");
    EXPECT_STREQ("reading", state()) << "a message has begun";
    send_and_read("\n");
    EXPECT_STREQ("idle", state());
    for (int i = 0; i < 5; ++i)
        send_and_read(std::string(256, 'x'));
    EXPECT_STREQ("stalled", state());
}

TEST_F(TcpPeerRecordsTest, ClosedConnectionIsClosedAndItsRecordGoesWithTheSweep)
{
    close(peer_);
    peer_ = -1;
    tcp_clients[fd_].idle();
    EXPECT_STREQ("closed", state());
    service_all_tcp_clients();
    EXPECT_EQ(0u, tcp_clients.count(fd_));
}

TEST_F(TcpPeerRecordsTest, CountingAnUnknownDescriptorChangesNothing)
{
    TCPTriggerClient stray;
    stray.command = "HELLO";
    testing::internal::CaptureStderr();
    stray.handle_message();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, record().messages);
}

}  // namespace
