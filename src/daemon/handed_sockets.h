// Listening sockets handed over by a service manager (LISTEN_FDS and
// LISTEN_PID naming this process): the trigger listener and the command
// server's socket are taken from them instead of being made, so that the
// manager keeps them, and the connections waiting on them, while the daemon
// restarts.  Without LISTEN_FDS in the environment nothing here writes a
// line or touches a descriptor, and the daemon makes its own sockets.
#pragma once

#include "comm_socket_v4.h"
#include "trigger/kept_connections.h"

#include <vector>

/// Takes the descriptors handed over to this process and removes
/// LISTEN_FDS, LISTEN_PID and LISTEN_FDNAMES from the environment.  They
/// are told apart by what they are, not by their order or their names: the
/// first IPv4 TCP socket that listens is kept for the trigger listener
/// (whatever its address and port), the first Unix stream socket that
/// listens at the command service's file (however its path is spelled) for
/// the command server; those named as the daemon names what it keeps in
/// the service manager's descriptor store are set aside for
/// take_stored_descriptors(); every other one is closed with a line naming
/// it.
void take_handed_sockets();

/// The descriptors handed back from the descriptor store, for the caller
/// to own from now on; each says whether it is a TCP connection.
std::vector<StoredDescriptor> take_stored_descriptors();

/// The handed-over trigger listener, made non-blocking, for the caller to
/// own from now on, with a line naming it; -1, and no line, when none was
/// handed over.
int take_handed_trigger_listener();

/// Makes `server` listen for local clients: on the handed-over command
/// socket when there is one and this build's packet-socket library can
/// serve it (a line names it; its file is never removed), otherwise on a
/// socket file of its own at server_socket_path, as
/// comm_socket_v4_create_server() makes it.  0, or non-zero on failure.
int command_server_listen(comm_socket_v4* server);
