#include "trigger/trigger_listener.h"

#include "trigger_test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

using namespace trigger_test;

namespace {

sockaddr_in loopback_port(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

int port_of(int fd, bool remote)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (remote)
        getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length);
    else
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// The number that the next new descriptor of this process will get.
int next_descriptor()
{
    int probe = dup(0);
    close(probe);
    return probe;
}

std::string fd_line(const char* format, int fd)
{
    char text[200];
    snprintf(text, sizeof(text), format, fd);
    return text;
}

// Writes into `fd` until the kernel takes no more, not even one byte, also
// once acknowledgements still under way have come back.
void fill_until_full(int fd)
{
    std::string chunk(1024, 'x');
    do {
        while (send(fd, chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (send(fd, "x", 1, MSG_DONTWAIT) > 0);
}

// True once `peer` reads the end of the stream before any byte.
bool closed_without_bytes(int peer)
{
    ssize_t result = -1;
    wait_until([&] {
        char byte;
        result = recv(peer, &byte, 1, MSG_DONTWAIT);
        return result >= 0;
    });
    return result == 0;
}

// The listener on the sandbox's port 9876, and trigger peers connecting to it.
class TriggerListenerTest : public testing::Test {
protected:
    void TearDown() override
    {
        drop_all_tcp_clients();
        tcp_trigger_close();
        for (int peer : peers)
            close(peer);
    }

    int connect_peer(int receive_buffer = 0)
    {
        int peer = socket(AF_INET, SOCK_STREAM, 0);
        if (receive_buffer > 0)
            setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
        sockaddr_in address = loopback_port(9876);
        EXPECT_EQ(connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        peers.push_back(peer);
        return peer;
    }
    // The key in tcp_clients of the connection that `peer` opened, or -1.
    static int daemon_fd_of(int peer)
    {
        for (const auto& entry : tcp_clients)
            if (port_of(entry.first, true) == port_of(peer, false))
                return entry.first;
        return -1;
    }
    // Connections waiting in the listener's accept queue.
    static unsigned queued_connections()
    {
        tcp_info info{};
        socklen_t length = sizeof(info);
        getsockopt(tcp_trigger_fd, IPPROTO_TCP, TCP_INFO, &info, &length);
        return info.tcpi_unacked;
    }
    int peer_of(int daemon_fd) const
    {
        for (int peer : peers)
            if (daemon_fd_of(peer) == daemon_fd)
                return peer;
        return -1;
    }
    static bool readable(int fd)
    {
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, 10000) == 1;
    }
    // One service step; what it printed on stderr.
    static std::string step()
    {
        testing::internal::CaptureStderr();
        service_all_tcp_clients();
        return testing::internal::GetCapturedStderr();
    }
    void open_listener_and_connect(int count)
    {
        ASSERT_EQ(tcp_trigger_open(), 0);
        for (int i = 0; i < count; ++i)
            connect_peer();
        ASSERT_TRUE(wait_until([&] { return queued_connections() == static_cast<unsigned>(count); }));
    }
    // One accepted connection whose peer has sent `text`, all of it waiting
    // at the daemon's end; the daemon's descriptor.
    int accepted_with_pending(const std::string& text)
    {
        open_listener_and_connect(1);
        step();
        int fd = daemon_fd_of(peers[0]);
        send_text(peers[0], text);
        EXPECT_TRUE(wait_until([&] { return pending_bytes(fd) == static_cast<int>(text.size()); }));
        return fd;
    }

    std::vector<int> peers;
};

TEST_F(TriggerListenerTest, OpeningAnOpenListenerKeepsItsOneSocket)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    int listener = tcp_trigger_fd;
    int next = next_descriptor();
    EXPECT_EQ(tcp_trigger_open(), 0);
    EXPECT_EQ(tcp_trigger_fd, listener);
    EXPECT_EQ(next_descriptor(), next);
}

TEST_F(TriggerListenerTest, ListenerIsNonBlockingOnAllAddressesOfPort9876)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ASSERT_EQ(getsockname(tcp_trigger_fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(address.sin_port), 9876);
    EXPECT_NE(fcntl(tcp_trigger_fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(TriggerListenerTest, PortTakenWithoutReuseMakesTheBindFail)
{
    // A listener without SO_REUSEPORT admits no second listener on its port;
    // its SO_REUSEADDR only lets it past connections of earlier tests that
    // linger in TIME_WAIT.
    int blocker = socket(AF_INET, SOCK_STREAM, 0);
    peers.push_back(blocker);
    int on = 1;
    setsockopt(blocker, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = loopback_port(9876);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(blocker, 1), 0);
    int next = next_descriptor();

    testing::internal::CaptureStderr();
    EXPECT_EQ(tcp_trigger_open(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot bind socket, Address already in use\n");
    EXPECT_EQ(tcp_trigger_fd, -1);
    EXPECT_EQ(next_descriptor(), next);
}

TEST_F(TriggerListenerTest, NoDescriptorLeftMakesTheSocketCreationFail)
{
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    testing::internal::CaptureStderr();
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(next_descriptor());
    setrlimit(RLIMIT_NOFILE, &tight);
    int result = tcp_trigger_open();
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot create socket, Too many open files\n");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(tcp_trigger_fd, -1);
}

TEST_F(TriggerListenerTest, ClosingTheListenerRefusesNewCallers)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    tcp_trigger_close();
    EXPECT_EQ(tcp_trigger_fd, -1);
    tcp_trigger_close();
    int peer = socket(AF_INET, SOCK_STREAM, 0);
    peers.push_back(peer);
    sockaddr_in address = loopback_port(9876);
    EXPECT_EQ(connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof(address)), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(TriggerListenerTest, StepWithNothingPendingAndNoneOpenDoesNothing)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    EXPECT_EQ(step(), "");
    EXPECT_TRUE(tcp_clients.empty());
}

TEST_F(TriggerListenerTest, FiveCallersGetFourPlacesAndTheFifthTakesTheFirstFreedOne)
{
    open_listener_and_connect(5);
    std::string accepted = step();
    ASSERT_EQ(tcp_clients.size(), 4u);
    std::string expected;
    for (const auto& entry : tcp_clients)
        expected += fd_line("Accepted TCP client fd %d\n", entry.first);
    EXPECT_EQ(accepted, expected);
    EXPECT_EQ(queued_connections(), 1u);
    EXPECT_EQ(step(), "");

    int leaving = tcp_clients.begin()->first;
    int leaver = peer_of(leaving);
    shutdown(leaver, SHUT_WR);
    ASSERT_TRUE(readable(leaving));
    std::string changes = step();
    ASSERT_EQ(tcp_clients.size(), 4u);
    EXPECT_EQ(daemon_fd_of(leaver), -1);
    int newcomer = daemon_fd_of(peers[4]);
    ASSERT_NE(newcomer, -1);
    EXPECT_EQ(changes, fd_line("Dropping TCP client fd %d\n", leaving) + fd_line("Accepted TCP client fd %d\n", newcomer));
    EXPECT_EQ(queued_connections(), 0u);
}

TEST_F(TriggerListenerTest, AcceptedConnectionsStayBlocking)
{
    open_listener_and_connect(1);
    step();
    ASSERT_EQ(tcp_clients.size(), 1u);
    EXPECT_EQ(fcntl(tcp_clients.begin()->first, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(TriggerListenerTest, TriggerMessageIsReadHandledAndAnswered)
{
    int fd = accepted_with_pending("TRIGGER\r\nchannel=2\r\n\r\n");
    EXPECT_EQ(step(), "Message: command='TRIGGER'\n  'channel' = '2'\n");
    EXPECT_EQ(receive_at_least(peers[0], 4), "OK\n\n");
    EXPECT_EQ(tcp_clients.count(fd), 1u);
}

TEST_F(TriggerListenerTest, ClientLeavingMidMessageIsReportedThenDroppedInTheSameStep)
{
    int fd = accepted_with_pending("TRIGGER\n");
    EXPECT_EQ(step(), "");
    shutdown(peers[0], SHUT_WR);
    ASSERT_TRUE(readable(fd));
    EXPECT_EQ(step(), fd_line("TCP client fd %d dropped connection without empty line, ignoring message\n", fd) +
                          fd_line("Dropping TCP client fd %d\n", fd));
    EXPECT_TRUE(tcp_clients.empty());
}

TEST_F(TriggerListenerTest, ClosedClientsAreDroppedInAscendingOrder)
{
    open_listener_and_connect(3);
    step();
    ASSERT_EQ(tcp_clients.size(), 3u);
    int first = tcp_clients.begin()->first;
    int last = tcp_clients.rbegin()->first;
    shutdown(peer_of(last), SHUT_WR);
    shutdown(peer_of(first), SHUT_WR);
    ASSERT_TRUE(readable(first) && readable(last));
    EXPECT_EQ(step(), fd_line("Dropping TCP client fd %d\n", first) + fd_line("Dropping TCP client fd %d\n", last));
    EXPECT_EQ(tcp_clients.size(), 1u);
}

TEST_F(TriggerListenerTest, ResetConnectionIsAnUnexpectedError)
{
    open_listener_and_connect(1);
    step();
    int fd = daemon_fd_of(peers[0]);
    linger abort_on_close{1, 0};
    setsockopt(peers[0], SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof(abort_on_close));
    close(peers[0]);
    peers.clear();
    ASSERT_TRUE(readable(fd));
    EXPECT_EQ(step(), fd_line("TCP client fd %d unexpected error Connection reset by peer\n", fd) +
                          fd_line("Dropping TCP client fd %d\n", fd));
}

TEST_F(TriggerListenerTest, PeerThatNeverReadsLosesItsConnectionAfterTenReplyTries)
{
    ASSERT_EQ(tcp_trigger_open(), 0);
    int peer = connect_peer(2048);
    ASSERT_TRUE(wait_until([] { return queued_connections() == 1; }));
    step();
    int fd = daemon_fd_of(peer);
    int small = 2048;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    fill_until_full(fd);
    send_text(peer, "TRIGGER\n\n");
    ASSERT_TRUE(wait_until([&] { return pending_bytes(fd) == 9; }));

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(step(), "Message: command='TRIGGER'\n"
                      "Ran out of patience trying to send reply, dropping connection\n" +
                          fd_line("Dropping TCP client fd %d\n", fd));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));
    EXPECT_TRUE(tcp_clients.empty());
}

TEST_F(TriggerListenerTest, FourStalledConnectionsKeepEveryPlaceTaken)
{
    open_listener_and_connect(5);
    step();
    for (const auto& entry : tcp_clients)
        send_text(peer_of(entry.first), std::string(1024, 'A') + "\n\n");
    for (const auto& entry : tcp_clients)
        ASSERT_TRUE(wait_until([&] { return pending_bytes(entry.first) == 1026; }));
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(step(), "");
    ASSERT_EQ(tcp_clients.size(), 4u);
    for (const auto& entry : tcp_clients) {
        EXPECT_EQ(entry.second.line_pos, 1024u);
        EXPECT_EQ(pending_bytes(entry.first), 2);
    }
    EXPECT_EQ(queued_connections(), 1u);
}

TEST_F(TriggerListenerTest, DroppingAllClosesEveryConnectionSilently)
{
    open_listener_and_connect(2);
    step();
    for (int peer : peers)
        send_text(peer, "TRIGGER\n\n");
    for (const auto& entry : tcp_clients)
        ASSERT_TRUE(wait_until([&] { return pending_bytes(entry.first) == 9; }));
    testing::internal::CaptureStderr();
    drop_all_tcp_clients();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(tcp_clients.empty());
    for (int peer : peers)
        EXPECT_TRUE(closed_without_bytes(peer));
}

TEST_F(TriggerListenerTest, DroppingAllOfAnEmptyTableDoesNothing)
{
    testing::internal::CaptureStderr();
    drop_all_tcp_clients();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(tcp_clients.empty());
}

TEST_F(TriggerListenerTest, DescriptorAlreadyInTheTableAborts)
{
    open_listener_and_connect(1);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_DEATH(
        {
            tcp_clients[next_descriptor()].take_fd(ends[0]);
            service_all_tcp_clients();
        },
        "adopt_client\\(int, const sockaddr_in&\\): Assertion `tcp_clients.find\\(fd\\) == tcp_clients.end\\(\\)' failed");
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
