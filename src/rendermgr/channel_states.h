// A render-manager channel's connection as the operator's status view shows
// it, and since when it has been so.  Each connection record keeps its own
// note; the main loop refreshes the notes at the end of every pass, and
// nothing in the daemon's own behaviour reads them.
#pragma once

#include <cstdint>

class RenderManagerConnection;

/// A channel's connection as the operator sees it.
enum class ChannelState {
    connecting,  ///< an attempt runs, or the connection is up but not yet seen open
    open,        ///< "connection open" was reported
    failed,      ///< no endpoint: the attempt failed or the connection was lost;
                 ///< the next refresh tries again
};

/// The state last noted for one channel and the monotonic time it was first
/// seen; kept in the channel's connection record.
struct ChannelStateNote {
    ChannelState state = ChannelState::failed;
    uint64_t since_us = 0;  ///< 0 until the first note
};

/// The present state of `connection` (failed for a null record).
ChannelState channel_state(const RenderManagerConnection* connection);
/// "connecting", "open" or "failed".
const char* channel_state_name(ChannelState state);
/// Notes the state of every record of `rendermgr_conn`: a new record or a
/// changed state is noted with `now_us`.  Takes no memory.
void note_channel_states(uint64_t now_us);
/// Since when `connection` has been in `state`: the noted time, or `now_us`
/// when the change happened after the last note.
uint64_t channel_state_since(const RenderManagerConnection& connection, ChannelState state, uint64_t now_us);
