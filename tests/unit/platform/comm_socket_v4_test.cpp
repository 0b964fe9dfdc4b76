#include "comm_test_support.h"

namespace {

using EndpointTest = CommTest;

const Message SET_REQUEST{"set", "", {"alt loop", "0"}, {}};
const Message NOTIFY{"notify", "OK", {"TRIGGER"}, {{"name", "value"}, {"empty", ""}}};

TEST_F(EndpointTest, FreshEndpointHasNoSocket)
{
    comm_socket_v4* sock = comm_socket_v4_create();
    ASSERT_NE(nullptr, sock);
    EXPECT_LT(sock->fd, 0);
    EXPECT_EQ(0u, sock->established);
    EXPECT_EQ(0u, sock->connect_pending);
    EXPECT_EQ(-1, comm_socket_v4_idle(sock));
    EXPECT_EQ(nullptr, comm_socket_v4_destroy(sock));
}

TEST_F(EndpointTest, DestroyReturnsNullForEveryRole)
{
    start_server();
    comm_socket_v4* client = comm_socket_v4_create();
    ASSERT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
    comm_socket_v4_close(client);
    EXPECT_EQ(nullptr, comm_socket_v4_destroy(client));
    EXPECT_EQ(nullptr, comm_socket_v4_destroy(server));
    server = nullptr;
    EXPECT_EQ(nullptr, comm_socket_v4_destroy(nullptr));
}

TEST_F(EndpointTest, RequestReachesServerWithEveryField)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_packet* request = packet_of(SET_REQUEST, 0x03, 77, -5);
    int length = comm_socket_v4_packet_send_to_server(client, request);
    EXPECT_EQ(static_cast<int>(frame_length(request->data)), length);
    comm_socket_v4_client* sender = nullptr;
    comm_socket_v4_packet* received = next_request(&sender);
    EXPECT_EQ(peer, sender);
    expect_packet(received, SET_REQUEST, 0x03, 77u, -5);
}

TEST_F(EndpointTest, ReplyReachesClientWithEveryField)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_packet* notify = packet_of(NOTIFY, 0x02, 0xfedcba9876543210u, 101);
    EXPECT_EQ(static_cast<int>(frame_length(notify->data)),
              comm_socket_v4_packet_send_to_client(peer, notify));
    comm_socket_v4_packet* received = next_from_server(client);
    expect_packet(received, NOTIFY, 0x02, 0xfedcba9876543210u, 101);
    EXPECT_EQ(nullptr, comm_socket_v4_client_get_packet_from_server(client));
}

TEST_F(EndpointTest, HeaderFieldsSetAfterWriteEndTravel)
{
    start_server();
    comm_socket_v4* client = connect_client();
    comm_socket_v4_packet* request = packet_of(SET_REQUEST);
    request->flags = 0x01;
    request->reference = 9;
    request->result = 3;
    ASSERT_GT(comm_socket_v4_packet_send_to_server(client, request), 0);
    comm_socket_v4_packet* received = next_request();
    EXPECT_EQ(0x01, received->flags);
    EXPECT_EQ(9u, received->reference);
    EXPECT_EQ(3, received->result);
}

}  // namespace
