#include "trigger/tcp_peer_records.h"

#include "trigger/trigger_listener.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

// A connection whose daemon side is a TCPTriggerClient in tcp_clients and
// whose other side the test writes to.
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
        note_tcp_peer(fd_, address);
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

    const TcpPeerRecord& record() { return tcp_peer_records.at(fd_); }
    const char* state() { return tcp_client_state(tcp_clients.at(fd_)); }

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
    EXPECT_EQ(0u, tcp_peer_records.count(fd_));
}

TEST_F(TcpPeerRecordsTest, CountingAnUnknownDescriptorChangesNothing)
{
    forget_tcp_peer(fd_);
    count_tcp_message(fd_);
    EXPECT_TRUE(tcp_peer_records.empty());
}

}  // namespace
