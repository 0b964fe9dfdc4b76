// Since when each render-manager channel has been in its present state, for
// the operator's status view.  The main loop notes the states at the end of
// every pass; nothing in the daemon's own behaviour reads them.
#pragma once

#include "rendermgr/render_manager_connection.h"

#include <cstdint>
#include <map>

/// A channel's connection as the operator sees it.
enum class ChannelState {
    connecting,  ///< an attempt runs, or the connection is up but not yet seen open
    open,        ///< "connection open" was reported
    failed,      ///< no endpoint: the attempt failed or the connection was lost;
                 ///< the next refresh tries again
};

/// The state noted for one channel and the monotonic time it was first seen.
struct ChannelStateRecord {
    ChannelState state;
    uint64_t since_us;
};

/// Noted states by channel number; follows `rendermgr_conn` pass by pass.
extern std::map<int, ChannelStateRecord> channel_states;

/// The present state of `connection` (failed for a null record).
ChannelState channel_state(const RenderManagerConnection* connection);
/// "connecting", "open" or "failed".
const char* channel_state_name(ChannelState state);
/// Brings `channel_states` in line with `rendermgr_conn`: a new channel or a
/// changed state is noted with `now_us`, a channel gone is forgotten.  Takes
/// no memory unless a channel appeared.
void note_channel_states(uint64_t now_us);
/// Since when `channel` has been in `state`: the noted time, or `now_us` when
/// the change happened after the last note.
uint64_t channel_state_since(int channel, ChannelState state, uint64_t now_us);
