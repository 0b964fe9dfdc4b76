#include "comm_test_support.h"

namespace {

using PacketTest = CommTest;

TEST_F(PacketTest, ReleaseOfNullIsHarmless)
{
    comm_socket_v4_packet_release(nullptr);
}

TEST_F(PacketTest, FreshPacketIsEmpty)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packets.push_back(packet);
    EXPECT_EQ(nullptr, packet->data);
    EXPECT_EQ(0, packet->flags);
    EXPECT_EQ(0u, packet->reference);
    EXPECT_EQ(0, packet->result);
}

TEST_F(PacketTest, WriteEndMakesTheFrame)
{
    comm_socket_v4_packet* packet = packet_of(Message{"test", "", {"a"}, {{"n", "v"}}});
    ASSERT_NE(nullptr, packet->data);
    EXPECT_EQ((Message{"test", "", {"a"}, {{"n", "v"}}}), read_message(packet->data));
}

TEST_F(PacketTest, WritingTwiceStartsAfreshAndKeepsHeaderFields)
{
    comm_socket_v4_packet* packet =
        packet_of(Message{"reply", "OK", {"one"}, {{"a", "b"}}}, 0x02, 42, 7);
    write_message(packet, Message{"reply", "Unknown trigger", {}, {}});
    EXPECT_EQ((Message{"reply", "Unknown trigger", {}, {}}), read_message(packet->data));
    comm_socket_v4_packet_begin_writing(packet, 0, "reply", "x");
    EXPECT_EQ(nullptr, packet->data);
    EXPECT_EQ(0x02, packet->flags);
    EXPECT_EQ(42u, packet->reference);
    EXPECT_EQ(7, packet->result);
}

TEST_F(PacketTest, PairBeforeArgumentListEndSpoilsTheMessage)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packets.push_back(packet);
    comm_socket_v4_packet_begin_writing(packet, 0, "c", "");
    comm_socket_v4_packet_write_nv_pair(packet, "n", "v");
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_end(packet);
    EXPECT_EQ(nullptr, packet->data);
}

TEST_F(PacketTest, WriteEndWithoutArgumentListEndGivesNoFrame)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packets.push_back(packet);
    comm_socket_v4_packet_begin_writing(packet, 0, "c", "");
    comm_socket_v4_packet_write_end(packet);
    EXPECT_EQ(nullptr, packet->data);
    comm_socket_v4_packet_write_argv(packet, "late");
    EXPECT_EQ(nullptr, packet->data);
}

TEST_F(PacketTest, UnfinishedPacketIsNotSent)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packets.push_back(packet);
    EXPECT_EQ(-1, comm_socket_v4_packet_send_to_client(peer, packet));
    EXPECT_EQ(-1, comm_socket_v4_packet_send_to_server(client, packet));
    comm_socket_v4_packet_begin_writing(packet, 0, "c", "");
    EXPECT_EQ(-1, comm_socket_v4_packet_send_to_client(peer, packet));
}

}  // namespace
