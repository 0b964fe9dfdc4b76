// The user a local client connected as: the host implementation of the
// packet-socket library can tell it, the appliance's own cannot.
#pragma once

#include "comm_socket_v4.h"

#include <sys/types.h>

#include <optional>

/// The uid of the process that connected as `client`; none when this
/// build's packet-socket library cannot tell it.
std::optional<uid_t> local_client_uid(comm_socket_v4_client* client);
