#include "comm_test_support.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>

#include <fstream>

namespace {

using ClientTest = CommTest;

const Message REQUEST{"set", "", {"+alt-now", "clip"}, {{"name", "value"}}};
const Message REPLY{"set", "OK", {"done"}, {{"a", "1"}, {"b", ""}}};

// Connects non-blocking sockets until the listen queue turns one away.
std::vector<int> fill_listen_queue(const char* path)
{
    std::vector<int> fillers;
    sockaddr_un address = address_of(path);
    for (;;) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            EXPECT_EQ(EAGAIN, errno);
            close(fd);
            return fillers;
        }
        fillers.push_back(fd);
    }
}

// A listener at TEST_SOCKET whose queue is full, so that a connect to it
// stays pending; the listener and the queued connections end with it.
struct FullListenQueue {
    FullListenQueue() : listener(raw_listen(TEST_SOCKET, 0)), fillers(fill_listen_queue(TEST_SOCKET)) {}
    ~FullListenQueue()
    {
        for (int fd : fillers)
            close(fd);
        close(listener);
    }
    /// Takes the queued connections off the listener, making room for more.
    void make_room() const
    {
        for (size_t i = 0; i < fillers.size(); ++i)
            close(accept(listener, nullptr, nullptr));
    }

    int listener;
    std::vector<int> fillers;
};

TEST_F(ClientTest, ConnectToAMissingPathFails)
{
    comm_socket_v4* client = new_client();
    EXPECT_EQ(-1, comm_socket_v4_connect_to(client, "/var/run/nobody.socket"));
    EXPECT_LT(client->fd, 0);
    EXPECT_EQ(0u, client->established);
    EXPECT_EQ(0u, client->connect_pending);
    EXPECT_EQ(-1, comm_socket_v4_idle(client));
}

TEST_F(ClientTest, ConnectToAPlainFileFails)
{
    std::ofstream(TEST_SOCKET) << "not a socket";
    comm_socket_v4* client = new_client();
    EXPECT_EQ(-1, comm_socket_v4_connect_to(client, TEST_SOCKET));
    EXPECT_LT(client->fd, 0);
}

TEST_F(ClientTest, ConnectToALiveServerIsEstablished)
{
    start_server();
    comm_socket_v4* client = new_client();
    EXPECT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    EXPECT_GE(client->fd, 0);
    EXPECT_TRUE(wait_established(client));
    EXPECT_EQ(0u, client->connect_pending);
}

TEST_F(ClientTest, ConnectToAnEndpointInUseIsRefusedAndKeepsIt)
{
    start_server();
    comm_socket_v4* client = connect_client();
    int fd = client->fd;
    EXPECT_EQ(-1, comm_socket_v4_connect_to(client, TEST_SOCKET));
    EXPECT_EQ(fd, client->fd);
    EXPECT_EQ(-1, comm_socket_v4_create_server(client, "/var/run/other.socket"));
}

TEST_F(ClientTest, FullListenQueueLeavesTheConnectPendingUntilRoomIsMade)
{
    FullListenQueue queue;
    comm_socket_v4* client = new_client();
    ASSERT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    EXPECT_EQ(1u, client->connect_pending);
    EXPECT_EQ(0u, client->established);
    EXPECT_EQ(0, comm_socket_v4_idle(client));
    queue.make_room();
    EXPECT_TRUE(wait_established(client));
    EXPECT_EQ(0u, client->connect_pending);
}

TEST_F(ClientTest, PendingConnectGivesUpAfterItsTimeout)
{
    FullListenQueue queue;
    comm_socket_v4* client = new_client();
    comm_socket_v4_set_connect_timeout(client, 100000);
    comm_socket_v4_set_connect_timeout_routine(client, 10000);
    ASSERT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    EXPECT_TRUE(wait_until([&] { return comm_socket_v4_idle(client) == -1; }));
    EXPECT_LT(client->fd, 0);
    EXPECT_EQ(0u, client->connect_pending);
}

TEST_F(ClientTest, PacketSentWhileConnectingGoesOutOnceConnected)
{
    FullListenQueue queue;
    comm_socket_v4* client = new_client();
    ASSERT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    comm_socket_v4_packet* packet = packet_of(REQUEST, 3);
    EXPECT_EQ(static_cast<int>(frame_length(packet->data)),
              comm_socket_v4_packet_send_to_server(client, packet));
    queue.make_room();
    EXPECT_TRUE(wait_established(client));
    int peer = accept(queue.listener, nullptr, nullptr);
    std::vector<unsigned char> expected = frame_bytes(packet);
    std::vector<unsigned char> got(expected.size());
    ASSERT_EQ(static_cast<ssize_t>(got.size()), recv(peer, got.data(), got.size(), MSG_WAITALL));
    EXPECT_EQ(expected, got);
    close(peer);
}

TEST_F(ClientTest, IdleFailsOnceTheServerIsGone)
{
    start_server();
    comm_socket_v4* client = connect_client();
    server = comm_socket_v4_destroy(server);
    EXPECT_TRUE(wait_until([&] { return comm_socket_v4_idle(client) == -1; }));
    EXPECT_LT(client->fd, 0);
    EXPECT_EQ(-1, comm_socket_v4_packet_send_to_server(client, packet_of(REQUEST)));
}

TEST_F(ClientTest, SpoiltFrameFromTheServerEndsTheConnection)
{
    int listener = raw_listen(TEST_SOCKET, 4);
    comm_socket_v4* client = new_client();
    ASSERT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    int peer = accept(listener, nullptr, nullptr);
    std::vector<unsigned char> frame = frame_bytes(packet_of(REPLY));
    frame_store(frame.data() + FRAME_STATUS_AT, static_cast<uint32_t>(frame.size()));
    ASSERT_EQ(static_cast<ssize_t>(frame.size()), write(peer, frame.data(), frame.size()));
    EXPECT_TRUE(wait_until([&] { return comm_socket_v4_idle(client) == -1; }));
    EXPECT_LT(client->fd, 0);
    EXPECT_EQ(nullptr, comm_socket_v4_client_get_packet_from_server(client));
    close(peer);
    close(listener);
}

TEST_F(ClientTest, CloseShutsTheConnection)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_close(client);
    EXPECT_LT(client->fd, 0);
    EXPECT_EQ(0u, client->established);
    EXPECT_EQ(-1, comm_socket_v4_idle(client));
    EXPECT_EQ(peer, next_disconnected());
    comm_socket_v4_free_client(peer);
}

// A server that does not read: the client keeps frames up to its limit and
// then refuses them, and a refused frame is never delivered.
TEST_F(ClientTest, SendToServerReturningZeroLosesThatFrame)
{
    start_server();
    comm_socket_v4* client = connect_client();
    comm_socket_v4_packet* packet = packet_of(Message{"big", "", {std::string(1 << 20, 'y')}, {}});
    int kept = 0;
    int result = 0;
    while (kept < 100 && (result = comm_socket_v4_packet_send_to_server(client, packet)) > 0)
        ++kept;
    EXPECT_EQ(0, result);
    EXPECT_GT(kept, 16);
    int received = 0;
    EXPECT_TRUE(wait_until([&] {
        comm_socket_v4_idle(client);
        comm_socket_v4_idle(server);
        for (comm_socket_v4_client* from = nullptr;
             comm_socket_v4_packet* in = comm_socket_v4_server_get_packet(server, &from);
             ++received)
            comm_socket_v4_packet_release(in);
        return received >= kept;
    }));
    usleep(100000);
    comm_socket_v4_idle(client);
    comm_socket_v4_idle(server);
    comm_socket_v4_client* from = nullptr;
    EXPECT_EQ(nullptr, comm_socket_v4_server_get_packet(server, &from));
    EXPECT_EQ(kept, received);
}

// The other process of the exchange: connects, sends REQUEST, expects REPLY
// answering it.  Its exit status names the first thing that went wrong.
int exchange_from_second_process()
{
    comm_socket_v4* client = comm_socket_v4_create();
    if (comm_socket_v4_connect_to(client, TEST_SOCKET) != 0)
        return 2;
    comm_socket_v4_packet* request = comm_socket_v4_packet_create();
    request->flags = 0x03;
    request->reference = 11;
    request->result = -7;
    write_message(request, REQUEST);
    if (!wait_established(client) ||
        comm_socket_v4_packet_send_to_server(client, request) <= 0)
        return 3;
    comm_socket_v4_packet* reply = nullptr;
    if (!wait_until([&] {
            comm_socket_v4_idle(client);
            return (reply = comm_socket_v4_client_get_packet_from_server(client)) != nullptr;
        }))
        return 4;
    if (!(read_message(reply->data) == REPLY) || reply->flags != 0x02 || reply->reference != 11 ||
        reply->result != 0)
        return 5;
    comm_socket_v4_packet_release(reply);
    comm_socket_v4_packet_release(request);
    comm_socket_v4_close(client);
    comm_socket_v4_destroy(client);
    return 0;
}

TEST_F(ClientTest, SecondProcessExchangesPacketsBothWays)
{
    start_server();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(exchange_from_second_process());
    comm_socket_v4_client* peer = accept_peer();
    comm_socket_v4_client* sender = nullptr;
    comm_socket_v4_packet* request = next_request(&sender);
    EXPECT_EQ(peer, sender);
    expect_packet(request, REQUEST, 0x03, 11u, -7);
    comm_socket_v4_packet* reply = packet_of(REPLY, request->flags & 0x02, request->reference, 0);
    EXPECT_GT(comm_socket_v4_packet_send_to_client(peer, reply), 0);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
