#include "comm_socket_v4_host.h"
#include "comm_test_support.h"

#include <poll.h>

#include <limits>

namespace {

using WaitingTest = CommTest;

constexpr uint64_t never = std::numeric_limits<uint64_t>::max();

const Message BIG{"notify", "OK", {std::string(40000, 'x')}, {}};

struct Watched {
    size_t needed = 0;
    std::vector<pollfd> fds;
    uint64_t wake_at = never;
};

Watched watched(comm_socket_v4* sock, size_t capacity = 16)
{
    Watched result;
    result.fds.assign(capacity, pollfd{-1, 0, 0});
    result.needed = comm_socket_v4_poll_descriptors(sock, result.fds.data(), capacity, &result.wake_at);
    result.fds.resize(std::min(capacity, result.needed));
    return result;
}

// Sends `packet` through `send` until the endpoint keeps the rest of a frame
// that went out in part (its peer reads nothing); the entry that `events`
// shows must then ask for room as well as for input.
template <typename Events, typename Send>
void expect_room_watched_once_output_is_kept(Events events, Send send)
{
    EXPECT_EQ(POLLIN, events());
    for (int i = 0; i < 1000 && events() == POLLIN; ++i)
        ASSERT_GE(send(), 0);
    EXPECT_EQ(POLLIN | POLLOUT, events());
}

TEST_F(WaitingTest, EndpointWithoutSocketNeedsNothing)
{
    comm_socket_v4* fresh = comm_socket_v4_create();
    clients.push_back(fresh);
    Watched w = watched(fresh);
    EXPECT_EQ(0u, w.needed);
    EXPECT_EQ(never, w.wake_at);
    EXPECT_EQ(0u, comm_socket_v4_poll_descriptors(nullptr, nullptr, 0, &w.wake_at));
}

TEST_F(WaitingTest, ServerWatchesItsListenerForInput)
{
    start_server();
    Watched w = watched(server);
    ASSERT_EQ(1u, w.needed);
    EXPECT_EQ(server->fd, w.fds[0].fd);
    EXPECT_EQ(POLLIN, w.fds[0].events);
    EXPECT_EQ(never, w.wake_at);
}

TEST_F(WaitingTest, AcceptedPeerNotYetTakenWakesAtOnce)
{
    start_server();
    comm_socket_v4* client = comm_socket_v4_create();
    clients.push_back(client);
    ASSERT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    ASSERT_TRUE(wait_until([&] { return comm_socket_v4_idle(server) == 0 && server->clients.size() == 1; }));
    EXPECT_EQ(0u, watched(server).wake_at);
    ASSERT_NE(nullptr, comm_socket_v4_accept_connection(server));
    Watched w = watched(server);
    EXPECT_EQ(never, w.wake_at);
    ASSERT_EQ(2u, w.needed);
    EXPECT_EQ(POLLIN, w.fds[1].events);
}

TEST_F(WaitingTest, CapacityBelowTheNeedIsNotOverrun)
{
    start_server();
    connect_client();
    connect_client();
    pollfd fds[2] = {{-7, 0, 0}, {-7, 0, 0}};
    uint64_t wake_at = never;
    EXPECT_EQ(3u, comm_socket_v4_poll_descriptors(server, fds, 1, &wake_at));
    EXPECT_EQ(server->fd, fds[0].fd);
    EXPECT_EQ(-7, fds[1].fd);
}

TEST_F(WaitingTest, QueuedRequestWakesAtOnce)
{
    start_server();
    comm_socket_v4* client = connect_client();
    comm_socket_v4_packet_send_to_server(client, packet_of(Message{"test", "", {}, {}}, 3));
    ASSERT_TRUE(wait_until([&] { return comm_socket_v4_idle(server) == 0 && watched(server).wake_at == 0; }));
    comm_socket_v4_client* sender = nullptr;
    comm_socket_v4_packet_release(comm_socket_v4_server_get_packet(server, &sender));
    EXPECT_EQ(never, watched(server).wake_at);
}

TEST_F(WaitingTest, DepartedPeerWakesAtOnceUntilTaken)
{
    start_server();
    connect_client();
    comm_socket_v4_destroy(clients.back());
    clients.pop_back();
    ASSERT_TRUE(wait_until([&] { return comm_socket_v4_idle(server) == 0 && watched(server).wake_at == 0; }));
    EXPECT_EQ(1u, watched(server).needed);
    comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server));
    EXPECT_EQ(never, watched(server).wake_at);
}

TEST_F(WaitingTest, PeerWithKeptOutputIsWatchedForRoom)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    connect_client(&peer);
    ASSERT_EQ(2u, watched(server).needed);
    comm_socket_v4_packet* packet = packet_of(BIG);
    expect_room_watched_once_output_is_kept([&] { return watched(server).fds[1].events; },
                                            [&] { return comm_socket_v4_packet_send_to_client(peer, packet); });
}

TEST_F(WaitingTest, EstablishedClientWatchesForInputAndRoomWhileOutputIsKept)
{
    start_server();
    comm_socket_v4* client = connect_client();
    Watched w = watched(client);
    ASSERT_EQ(1u, w.needed);
    EXPECT_EQ(client->fd, w.fds[0].fd);
    EXPECT_EQ(never, w.wake_at);
    comm_socket_v4_packet* packet = packet_of(BIG);
    expect_room_watched_once_output_is_kept([&] { return watched(client).fds[0].events; },
                                            [&] { return comm_socket_v4_packet_send_to_server(client, packet); });
}

TEST_F(WaitingTest, ReceivedPacketWakesAtOnce)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    ASSERT_GT(comm_socket_v4_packet_send_to_client(peer, packet_of(Message{"notify", "OK", {"T"}, {}})), 0);
    ASSERT_TRUE(wait_until([&] { return comm_socket_v4_idle(client) == 0 && watched(client).wake_at == 0; }));
    comm_socket_v4_packet_release(comm_socket_v4_client_get_packet_from_server(client));
    EXPECT_EQ(never, watched(client).wake_at);
}

TEST_F(WaitingTest, ConnectTurnedAwayWakesForItsRetryAndNotOnItsSocket)
{
    int listener = raw_listen(TEST_SOCKET, 0);
    std::vector<int> fillers;
    sockaddr_un address = address_of(TEST_SOCKET);
    for (;;) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            close(fd);
            break;
        }
        fillers.push_back(fd);
    }
    comm_socket_v4* client = comm_socket_v4_create();
    clients.push_back(client);
    comm_socket_v4_set_connect_timeout_routine(client, 300000);
    uint64_t before = monotonic_clock_us();
    ASSERT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    ASSERT_EQ(1u, client->connect_pending);
    Watched w = watched(client);
    EXPECT_EQ(0u, w.needed);
    EXPECT_GE(w.wake_at, before + 300000);
    EXPECT_LE(w.wake_at, monotonic_clock_us() + 300000);
    for (int fd : fillers)
        close(fd);
    close(listener);
}

TEST_F(WaitingTest, ClosedClientNeedsNothing)
{
    start_server();
    comm_socket_v4* client = connect_client();
    comm_socket_v4_close(client);
    EXPECT_EQ(0u, watched(client).needed);
}

}  // namespace
