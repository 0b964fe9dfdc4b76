#include "rendermgr/channel_states.h"

#include "rendermgr/channels.h"

#include <gtest/gtest.h>

namespace {

class ChannelStatesTest : public testing::Test {
protected:
    void TearDown() override { free_all(); }
};

TEST_F(ChannelStatesTest, StateFollowsTheConnectionRecord)
{
    RenderManagerConnection* connection = rendermgr_get_or_create_channel(4);
    EXPECT_EQ(ChannelState::failed, channel_state(connection));
    connection->sock = comm_socket_v4_create();
    EXPECT_EQ(ChannelState::failed, channel_state(connection)) << "an endpoint without a socket";
    connection->open = true;
    EXPECT_EQ(ChannelState::open, channel_state(connection));
    EXPECT_EQ(ChannelState::failed, channel_state(nullptr));
    EXPECT_STREQ("connecting", channel_state_name(ChannelState::connecting));
    EXPECT_STREQ("open", channel_state_name(ChannelState::open));
    EXPECT_STREQ("failed", channel_state_name(ChannelState::failed));
}

TEST_F(ChannelStatesTest, NotingKeepsTheTimeOfTheLastChange)
{
    RenderManagerConnection* connection = rendermgr_get_or_create_channel(2);
    note_channel_states(100);
    note_channel_states(200);
    EXPECT_EQ(100u, channel_state_since(*connection, ChannelState::failed, 300));
    connection->open = true;
    EXPECT_EQ(300u, channel_state_since(*connection, ChannelState::open, 300)) << "changed after the note";
    note_channel_states(400);
    EXPECT_EQ(400u, channel_state_since(*connection, ChannelState::open, 500));
}

TEST_F(ChannelStatesTest, NotingFollowsChannelsComingAndGoing)
{
    rendermgr_get_or_create_channel(1);
    rendermgr_get_or_create_channel(3);
    note_channel_states(100);
    rendermgr_drop_channel(1);
    rendermgr_get_or_create_channel(2);
    rendermgr_get_or_create_channel(5);
    note_channel_states(200);
    std::vector<std::pair<int, uint64_t>> noted;
    for (const auto& [channel, connection] : rendermgr_conn)
        noted.emplace_back(channel, connection->noted_state.since_us);
    EXPECT_EQ((std::vector<std::pair<int, uint64_t>>{{2, 200}, {3, 100}, {5, 200}}), noted);
    free_all();
    note_channel_states(300);
    EXPECT_TRUE(rendermgr_conn.empty());
}

}  // namespace
