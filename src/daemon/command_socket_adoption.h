// Serving a listening socket that the service manager made as the command
// server's: only the host implementation of the packet-socket library can.
#pragma once

#include "comm_socket_v4.h"

/// Makes the fresh endpoint `server` serve `fd`, a listening Unix stream
/// socket handed over by the service manager, never removing its file.
/// False, with `fd` left open, when this build's packet-socket library
/// cannot serve a socket that it did not make.
bool adopt_command_socket(comm_socket_v4* server, int fd);
