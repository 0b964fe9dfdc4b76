#include "rendermgr/channel_states.h"

#include "rendermgr/channels.h"

ChannelState channel_state(const RenderManagerConnection* connection)
{
    if (connection != nullptr && connection->open)
        return ChannelState::open;
    if (connection == nullptr || connection->sock == nullptr || connection->sock->fd < 0)
        return ChannelState::failed;
    return ChannelState::connecting;
}

const char* channel_state_name(ChannelState state)
{
    if (state == ChannelState::open)
        return "open";
    return state == ChannelState::connecting ? "connecting" : "failed";
}

void note_channel_states(uint64_t now_us)
{
    for (const auto& entry : rendermgr_conn) {
        RenderManagerConnection* connection = entry.second;
        if (connection == nullptr)
            continue;
        ChannelState state = channel_state(connection);
        ChannelStateNote& noted = connection->noted_state;
        if (noted.since_us == 0 || noted.state != state)
            noted = ChannelStateNote{state, now_us};
    }
}

uint64_t channel_state_since(const RenderManagerConnection& connection, ChannelState state, uint64_t now_us)
{
    const ChannelStateNote& noted = connection.noted_state;
    if (noted.since_us == 0 || noted.state != state)
        return now_us;
    return noted.since_us;
}
