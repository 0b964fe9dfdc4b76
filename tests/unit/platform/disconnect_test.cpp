// A server that ends a peer's connection itself: the peer sees the end, the
// server reports it like a peer that went away, and nothing of it is left.
#include "comm_socket_v4_host.h"
#include "comm_test_support.h"

namespace {

using DisconnectTest = CommTest;

const Message REQUEST{"register", "", {}, {{"triggers", "*"}}};

TEST_F(DisconnectTest, PeerIsReportedOnceAndSeesTheEndOfItsConnection)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_disconnect_client(peer);
    EXPECT_EQ(peer, comm_socket_v4_get_disconnected_client(server));
    EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(server));
    EXPECT_TRUE(wait_until([&] { return comm_socket_v4_idle(client) == -1; }));
    EXPECT_LT(client->fd, 0);
    comm_socket_v4_free_client(peer);
    EXPECT_EQ(0, comm_socket_v4_idle(server));
    EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(server));
}

TEST_F(DisconnectTest, QueuedRequestsOfThePeerGoAndOthersStay)
{
    start_server();
    comm_socket_v4_client* dropped = nullptr;
    comm_socket_v4_client* staying = nullptr;
    comm_socket_v4* one = connect_client(&dropped);
    comm_socket_v4* two = connect_client(&staying);
    ASSERT_GT(comm_socket_v4_packet_send_to_server(one, packet_of(REQUEST)), 0);
    ASSERT_GT(comm_socket_v4_packet_send_to_server(two, packet_of(Message{"test", "", {}, {}})), 0);
    ASSERT_GT(comm_socket_v4_packet_send_to_server(one, packet_of(REQUEST)), 0);
    // Each frame was written whole into a local socket: one idle takes
    // them all in.
    ASSERT_EQ(0, comm_socket_v4_idle(server));
    comm_socket_v4_disconnect_client(dropped);
    comm_socket_v4_client* sender = nullptr;
    comm_socket_v4_packet* request = comm_socket_v4_server_get_packet(server, &sender);
    ASSERT_NE(nullptr, request);
    packets.push_back(request);
    EXPECT_EQ(staying, sender);
    EXPECT_EQ("test", read_message(request->data).command);
    EXPECT_EQ(nullptr, comm_socket_v4_server_get_packet(server, &sender));
    comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server));
}

TEST_F(DisconnectTest, SendsAndWaitsFailOnceDisconnected)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    connect_client(&peer);
    comm_socket_v4_disconnect_client(peer);
    EXPECT_EQ(-1, comm_socket_v4_packet_send_to_client(peer, packet_of(REQUEST)));
    EXPECT_EQ(-1, comm_socket_v4_wait_for_server_to_client_writeable(peer, monotonic_clock_us()));
    EXPECT_EQ(peer, comm_socket_v4_get_disconnected_client(server));
    comm_socket_v4_free_client(peer);
}

TEST_F(DisconnectTest, PeerAlreadyGoneOrNullIsLeftAlone)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_close(client);
    ASSERT_EQ(peer, next_disconnected());
    comm_socket_v4_disconnect_client(peer);
    comm_socket_v4_disconnect_client(nullptr);
    EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(server));
    comm_socket_v4_free_client(peer);
}

TEST_F(DisconnectTest, IndexIsFreeAgainOnceTheDisconnectedPeerIsFreed)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    connect_client(&peer);
    comm_socket_v4_disconnect_client(peer);
    comm_socket_v4_free_client(comm_socket_v4_get_disconnected_client(server));
    EXPECT_TRUE(server->clients.empty());
    comm_socket_v4_client* next = nullptr;
    connect_client(&next);
    EXPECT_EQ(0u, comm_socket_v4_client_ptr2index(next));
}

}  // namespace
