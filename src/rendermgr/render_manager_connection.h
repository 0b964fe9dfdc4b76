// The connection to one render-manager channel.
#pragma once

#include "comm_socket_v4.h"
#include "rendermgr/channel_states.h"

#include <cstdint>
#include <string>
#include <vector>

struct pollfd;

class RenderManagerConnection {
public:
    comm_socket_v4* sock = nullptr;  ///< current attempt or connection, or null
    std::string socket_path;         ///< the channel's socket file, fixed at construction
    int channel;                     ///< channel number
    bool open = false;               ///< "connection open" was reported and not yet closed
    ChannelStateNote noted_state;    ///< the state the status view last noted, and since when

    /// Builds `socket_path` from the channel's metadata directory.
    explicit RenderManagerConnection(int channel);
    /// Ends the endpoint, if any (close, then destroy).
    ~RenderManagerConnection();
    RenderManagerConnection(const RenderManagerConnection&) = delete;
    RenderManagerConnection& operator=(const RenderManagerConnection&) = delete;

    /// Polls the connection once: notices it opening and closing, ends a
    /// dead endpoint, and discards whatever the render manager sent.
    void idle();
    /// Adds what the connection waits for to `fds`; lowers `wake_at` to 0
    /// when idle() has work now (an endpoint to end, a connection to report
    /// open), or to when the library needs its idle call.
    void wait_descriptors(std::vector<pollfd>& fds, uint64_t& wake_at) const;
};
