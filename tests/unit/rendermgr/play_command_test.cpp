#include "rendermgr/play_command.h"

#include "channel_server.h"
#include "rendermgr/channels.h"
#include "rendermgr/packet_view.h"

#include <gtest/gtest.h>

#include <cstring>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class PlayCommandTest : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }

    static void reset()
    {
        free_all();
        known_channels.clear();
        sel_channels.clear();
    }

    // Connects the daemon to `server`'s channel and waits until the record
    // is open and the render manager has taken the connection in.
    static RenderManagerConnection* open_channel(ChannelServer& server)
    {
        known_channels_update();
        connect_manage();
        RenderManagerConnection* connection = rendermgr_get_channel(server.channel);
        bool ready = connection != nullptr && wait_for([&] {
            server.serve();
            connection->idle();
            return connection->open && server.peers.size() == 1;
        });
        return ready ? connection : nullptr;
    }

    // Serves until `count` requests have arrived.
    static bool receive(ChannelServer& server, size_t count)
    {
        return wait_for([&] {
            server.serve();
            return server.received.size() >= count;
        });
    }

    // The number given to begin_writing, as it travels in the frame header.
    static uint64_t begin_number(const comm_socket_v4_packet* packet)
    {
        uint64_t number;
        memcpy(&number, packet->data + 36, sizeof(number));
        return number;
    }

    // Checks one received setting: a "set" request wanting a reply, with the
    // name and the value as its only two arguments.
    static void expect_setting(const comm_socket_v4_packet* packet, const char* name,
                               const char* value)
    {
        EXPECT_STREQ("set", packet_command_word(packet));
        EXPECT_STREQ("", packet_status_word(packet));
        EXPECT_EQ(COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT, packet->flags);
        EXPECT_EQ(0U, packet->reference);
        EXPECT_EQ(0, packet->result);
        EXPECT_EQ(0U, begin_number(packet));
        ASSERT_EQ(2U, packet_argument_count(packet));
        EXPECT_STREQ(name, packet_argument(packet, 0));
        EXPECT_STREQ(value, packet_argument(packet, 1));
        EXPECT_EQ(0U, packet_nv_pair_count(packet));
    }
};

TEST_F(PlayCommandTest, PlayNowSendsTheTwoSettingsInOrder)
{
    ChannelServer server(1);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);

    CaptureStderr();
    play_now(connection, "clip");
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Channel 1: setting 'alt loop' = 0\nChannel 1: setting '+alt-now' = clip\n", err);
    ASSERT_TRUE(receive(server, 2));
    ASSERT_EQ(2U, server.received.size());
    expect_setting(server.received[0], "alt loop", "0");
    expect_setting(server.received[1], "+alt-now", "clip");
    EXPECT_TRUE(connection->open);
}

TEST_F(PlayCommandTest, PlayNowOnAChannelWithoutEndpointWritesAndSendsNothing)
{
    ChannelServer server(2);
    RenderManagerConnection* connection = rendermgr_get_or_create_channel(2);
    ASSERT_NE(nullptr, connection);

    CaptureStderr();
    play_now(connection, "clip");
    std::string err = GetCapturedStderr();

    EXPECT_EQ("", err);
    EXPECT_EQ(nullptr, connection->sock);
    EXPECT_FALSE(connection->open);
    for (int pass = 0; pass < 10; ++pass)
        server.serve();
    EXPECT_TRUE(server.peers.empty());
    EXPECT_TRUE(server.received.empty());
}

TEST_F(PlayCommandTest, EmptyItemNameIsSentAsAnEmptyArgument)
{
    ChannelServer server(3);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);

    CaptureStderr();
    play_now(connection, "");
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Channel 3: setting 'alt loop' = 0\nChannel 3: setting '+alt-now' = \n", err);
    ASSERT_TRUE(receive(server, 2));
    expect_setting(server.received[1], "+alt-now", "");
}

TEST_F(PlayCommandTest, ItemNameIsSentAsItIs)
{
    ChannelServer server(4);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);

    CaptureStderr();
    play_now(connection, "it's \"a\" clip = 1");
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Channel 4: setting 'alt loop' = 0\nChannel 4: setting '+alt-now' = it's \"a\" clip = 1\n", err);
    ASSERT_TRUE(receive(server, 2));
    expect_setting(server.received[1], "+alt-now", "it's \"a\" clip = 1");
}

TEST_F(PlayCommandTest, RenderManagerGoneBeforePlayLosesBothSettingsWithMessages)
{
    ChannelServer server(5);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);
    server.stop();

    CaptureStderr();
    play_now(connection, "clip");
    std::string err = GetCapturedStderr();

    // The failed send or the poll after it notices the loss; the second
    // setting then finds no endpoint and is not attempted.
    EXPECT_EQ(0U, err.find("Channel 5: setting 'alt loop' = 0\n"));
    EXPECT_EQ(std::string::npos, err.find("+alt-now"));
    EXPECT_EQ(nullptr, connection->sock);
    EXPECT_FALSE(connection->open);
}

}  // namespace
