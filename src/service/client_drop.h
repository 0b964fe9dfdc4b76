// Ending a local client's connection from the daemon's side.
#pragma once

#include "comm_socket_v4.h"

/// Disconnects `client`: its queued requests go, and the library reports it
/// as disconnected, so that the command server frees it and its record.
/// False when the packet-socket library cannot end a peer's connection.
bool disconnect_local_client(comm_socket_v4_client* client);
