#include "comm_test_support.h"
#include "proc.h"
#include "q9mi.h"

namespace {

using q9test::open_descriptor_count;

class MediaItemTest : public CommTest {
protected:
    void start_service()
    {
        server = comm_socket_v4_create();
        ASSERT_EQ(0, comm_socket_v4_create_server(server, Q9MI_SERVICE_PATH));
    }
};

TEST_F(MediaItemTest, StartWithoutServiceFailsAtOnce)
{
    int before = open_descriptor_count();
    uint64_t started = monotonic_clock_us();
    EXPECT_EQ(-1, q9mi_start_item("clip"));
    EXPECT_LT(monotonic_clock_us() - started, 5000000u);
    EXPECT_EQ(before, open_descriptor_count());
}

TEST_F(MediaItemTest, StartDeliversOneStartRequestAndHangsUp)
{
    start_service();
    int before = open_descriptor_count();
    EXPECT_EQ(0, q9mi_start_item("evening news"));
    EXPECT_EQ(before, open_descriptor_count());
    comm_socket_v4_client* sender = nullptr;
    comm_socket_v4_packet* request = next_request(&sender);
    expect_packet(request, Message{"start", "", {"evening news"}, {}}, COMM_SOCKET_V4_MODE_BIT, 0u, 0);
    EXPECT_EQ(sender, next_disconnected());
}

TEST_F(MediaItemTest, StartFailsAtOnceWhenTheServiceCannotTakeIt)
{
    int listener = raw_listen(Q9MI_SERVICE_PATH, 0);
    ASSERT_GE(listener, 0);
    EXPECT_EQ(0, q9mi_start_item("first"));
    EXPECT_EQ(-1, q9mi_start_item("second"));
    close(listener);
}

TEST_F(MediaItemTest, UnknownCommandReplyNamesTheCommand)
{
    comm_socket_v4_packet* request =
        packet_of(Message{"frobnicate", "", {"a"}, {{"n", "v"}}}, 3, 8);
    comm_socket_v4_packet* reply = comm_socket_v4_packet_create();
    packets.push_back(reply);
    reply->flags = 0x02;
    reply->reference = 8;
    q9mi_default_unknown_command_error_response(request, reply);
    ASSERT_NE(nullptr, reply->data);
    EXPECT_EQ((Message{"frobnicate", "Unknown command", {}, {}}), read_message(reply->data));
    EXPECT_EQ(1, reply->result);
    EXPECT_EQ(0x02, reply->flags);
    EXPECT_EQ(8u, reply->reference);
}

TEST_F(MediaItemTest, UnknownCommandReplyMayReuseTheRequest)
{
    comm_socket_v4_packet* packet = packet_of(Message{"frobnicate", "", {"a"}, {}});
    q9mi_default_unknown_command_error_response(packet, packet);
    EXPECT_EQ((Message{"frobnicate", "Unknown command", {}, {}}), read_message(packet->data));
}

}  // namespace
