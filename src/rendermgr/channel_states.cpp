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
    switch (state) {
    case ChannelState::connecting:
        return "connecting";
    case ChannelState::open:
        return "open";
    case ChannelState::failed:
        break;
    }
    return "failed";
}

// Both maps are ordered by channel, so one walk over both does it.
void note_channel_states(uint64_t now_us)
{
    auto noted = channel_states.begin();
    for (const auto& [channel, connection] : rendermgr_conn) {
        while (noted != channel_states.end() && noted->first < channel)
            noted = channel_states.erase(noted);
        ChannelState state = channel_state(connection);
        if (noted == channel_states.end() || noted->first != channel)
            noted = channel_states.emplace_hint(noted, channel, ChannelStateRecord{state, now_us});
        else if (noted->second.state != state)
            noted->second = ChannelStateRecord{state, now_us};
        ++noted;
    }
    channel_states.erase(noted, channel_states.end());
}

uint64_t channel_state_since(int channel, ChannelState state, uint64_t now_us)
{
    auto noted = channel_states.find(channel);
    if (noted == channel_states.end() || noted->second.state != state)
        return now_us;
    return noted->second.since_us;
}
