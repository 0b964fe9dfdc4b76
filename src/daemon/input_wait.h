// The wait of the waking main loop (`wake_on_input`): instead of sleeping a
// fixed interval, a pass waits until something needs the daemon.  The
// limits of a classic pass hold per window of one interval, however many
// passes the window holds.
#pragma once

#include <poll.h>

#include <cstdint>
#include <vector>

/// The budget window the passes of the main loop share, and what the wait
/// keeps from pass to pass.
struct PassWindow {
    uint64_t end_us = 0;           ///< when the window ends (monotonic)
    int server_rounds = 0;         ///< command-server rounds in it that found work
    bool server_unusable = false;  ///< the last round found no usable endpoint
    /// What the wait watches; kept so that a wait allocates nothing once it
    /// has grown to the number of peers.
    std::vector<pollfd> watched;
};

/// Starts a new window at `now_us` (monotonic): no round and no TCP byte
/// counted in it yet.
void open_window(PassWindow& window, uint64_t now_us);
/// Waits in one poll for a connection or bytes at the TCP listener or a
/// connection with budget left, the command server or a channel; for a
/// signal; or until `wake_by` (monotonic microseconds) or, while a budget is
/// spent, the end of the window.  Opens a new window first when the current
/// one has ended.  Returns at once when a signal is already counted.
void wait_for_input(PassWindow& window, uint64_t wake_by);
