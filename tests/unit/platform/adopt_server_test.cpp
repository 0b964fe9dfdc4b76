// A server on a listening socket that someone else made and keeps, as a
// service manager hands it over: served like a socket of its own, closed at
// the end, its file never removed.
#include "comm_socket_v4_host.h"
#include "comm_test_support.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>

namespace {

// An adopted socket leaves its file behind, as its owner would.
class AdoptServerTest : public CommTest {
protected:
    void TearDown() override
    {
        CommTest::TearDown();
        unlink(TEST_SOCKET);
    }

    /// Makes `server` a fresh endpoint and has it adopt `fd`; whether it did.
    bool adopt(int fd)
    {
        server = comm_socket_v4_create();
        return fd >= 0 && comm_socket_v4_adopt_server(server, fd) == 0;
    }
};

const Message REQUEST{"test", "", {}, {}};
const Message REPLY{"test", "OK", {}, {{"name", "value"}}};

bool descriptor_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

bool socket_file_at(const char* path)
{
    struct stat file;
    return lstat(path, &file) == 0 && S_ISSOCK(file.st_mode);
}

// A Unix socket of `type` bound at TEST_SOCKET that does not listen, or -1.
int bound_unix_socket(int type)
{
    int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address = address_of(TEST_SOCKET);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// What stays refused leaves the endpoint as fresh as it was: it can still
// become a server of its own.
void expect_refused_and_endpoint_fresh(int fd)
{
    comm_socket_v4* sock = comm_socket_v4_create();
    EXPECT_NE(0, comm_socket_v4_adopt_server(sock, fd));
    EXPECT_LT(sock->fd, 0);
    EXPECT_TRUE(descriptor_open(fd));
    EXPECT_EQ(0, comm_socket_v4_create_server(sock, "/var/run/comm_test_own.socket"));
    comm_socket_v4_destroy(sock);
}

TEST_F(AdoptServerTest, PeersAreAcceptedAndServed)
{
    int listening = raw_listen(TEST_SOCKET, 16);
    ASSERT_TRUE(adopt(listening));
    EXPECT_EQ(listening, server->fd);

    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    ASSERT_GT(comm_socket_v4_packet_send_to_server(client, packet_of(REQUEST, 3, 41)), 0);
    comm_socket_v4_client* sender = nullptr;
    expect_packet(next_request(&sender), REQUEST, 3, 41, 0);
    EXPECT_EQ(peer, sender);
    EXPECT_GT(comm_socket_v4_packet_send_to_client(peer, packet_of(REPLY, 2, 41)), 0);
    expect_packet(next_from_server(client), REPLY, 2, 41, 0);
}

TEST_F(AdoptServerTest, PeersWaitingBeforeTheAdoptionAreAccepted)
{
    int listening = raw_listen(TEST_SOCKET, 16);
    ASSERT_GE(listening, 0);
    int early = raw_connect(TEST_SOCKET);
    ASSERT_GE(early, 0);
    ASSERT_TRUE(adopt(listening));
    EXPECT_NE(nullptr, accept_peer());
    close(early);
}

TEST_F(AdoptServerTest, DescriptorBecomesNonBlockingAndCloseOnExec)
{
    int listening = bound_unix_socket(SOCK_STREAM);
    ASSERT_GE(listening, 0);
    ASSERT_EQ(0, fcntl(listening, F_SETFD, 0));
    ASSERT_EQ(0, listen(listening, 4));
    ASSERT_TRUE(adopt(listening));
    EXPECT_NE(0, fcntl(listening, F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(listening, F_GETFD) & FD_CLOEXEC);
    // A non-blocking listener: with nobody waiting the idle call returns.
    EXPECT_EQ(0, comm_socket_v4_idle(server));
    EXPECT_EQ(nullptr, comm_socket_v4_accept_connection(server));
}

// The service manager keeps its own descriptor of the socket: connections
// made after the endpoint is gone wait in the queue, at the same file.
TEST_F(AdoptServerTest, DestroyClosesTheDescriptorAndKeepsTheSocketFile)
{
    int managers = raw_listen(TEST_SOCKET, 16);
    ASSERT_GE(managers, 0);
    int handed = dup(managers);
    ASSERT_TRUE(adopt(handed));
    connect_client();
    server = comm_socket_v4_destroy(server);
    EXPECT_FALSE(descriptor_open(handed));
    EXPECT_TRUE(socket_file_at(TEST_SOCKET));
    int later = raw_connect(TEST_SOCKET);
    EXPECT_GE(later, 0);
    close(later);
    close(managers);
}

TEST_F(AdoptServerTest, CloseKeepsTheSocketFileAndReportsThePeers)
{
    int listening = raw_listen(TEST_SOCKET, 16);
    ASSERT_TRUE(adopt(listening));
    comm_socket_v4_client* peer = nullptr;
    connect_client(&peer);
    comm_socket_v4_close(server);
    EXPECT_LT(server->fd, 0);
    EXPECT_FALSE(descriptor_open(listening));
    EXPECT_TRUE(socket_file_at(TEST_SOCKET));
    EXPECT_EQ(peer, comm_socket_v4_get_disconnected_client(server));
    comm_socket_v4_free_client(peer);
}

TEST_F(AdoptServerTest, SocketThatDoesNotListenIsRefused)
{
    int bound = bound_unix_socket(SOCK_STREAM);
    ASSERT_GE(bound, 0);
    expect_refused_and_endpoint_fresh(bound);
    close(bound);
}

TEST_F(AdoptServerTest, DatagramSocketIsRefused)
{
    int datagram = bound_unix_socket(SOCK_DGRAM);
    ASSERT_GE(datagram, 0);
    expect_refused_and_endpoint_fresh(datagram);
    close(datagram);
}

TEST_F(AdoptServerTest, ListeningTcpSocketIsRefused)
{
    int tcp = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(tcp, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(tcp, 4));
    expect_refused_and_endpoint_fresh(tcp);
    close(tcp);
}

TEST_F(AdoptServerTest, DescriptorThatIsNoSocketIsRefused)
{
    int pipe_ends[2];
    ASSERT_EQ(0, pipe(pipe_ends));
    expect_refused_and_endpoint_fresh(pipe_ends[0]);
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

TEST_F(AdoptServerTest, EndpointInUseOrNoDescriptorIsRefused)
{
    start_server();
    int listening = raw_listen("/var/run/comm_test_other.socket", 4);
    ASSERT_GE(listening, 0);
    EXPECT_NE(0, comm_socket_v4_adopt_server(server, listening));
    EXPECT_TRUE(descriptor_open(listening));
    close(listening);
    unlink("/var/run/comm_test_other.socket");
    comm_socket_v4* fresh = comm_socket_v4_create();
    EXPECT_NE(0, comm_socket_v4_adopt_server(fresh, -1));
    EXPECT_NE(0, comm_socket_v4_adopt_server(nullptr, 3));
    comm_socket_v4_destroy(fresh);
}

}  // namespace
