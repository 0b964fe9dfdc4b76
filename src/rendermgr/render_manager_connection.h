// The connection to one render-manager channel.
#pragma once

#include "comm_socket_v4.h"

#include <string>

class RenderManagerConnection {
public:
    comm_socket_v4* sock = nullptr;  ///< current attempt or connection, or null
    std::string socket_path;         ///< the channel's socket file, fixed at construction
    int channel;                     ///< channel number
    bool open = false;               ///< "connection open" was reported and not yet closed

    /// Builds `socket_path` from the channel's metadata directory.
    explicit RenderManagerConnection(int channel);
    /// Ends the endpoint, if any (close, then destroy).
    ~RenderManagerConnection();
    RenderManagerConnection(const RenderManagerConnection&) = delete;
    RenderManagerConnection& operator=(const RenderManagerConnection&) = delete;

    /// Polls the connection once: notices it opening and closing, ends a
    /// dead endpoint, and discards whatever the render manager sent.
    void idle();
};
