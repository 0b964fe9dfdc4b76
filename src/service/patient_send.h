// The one way the local command service hands a packet to a peer.
#pragma once

#include "comm_socket_v4.h"

/// Sends the finished `packet` to `client`, waiting up to half a second at a
/// time for as long as the peer cannot take it yet; writes "Failed to send
/// packet to client\n" to stderr when the library gives the peer up.  The
/// caller keeps the packet.  With client_send_timeout_ms set, the waits for
/// one client add up to at most that long per pass (send_budget.h): a client
/// that has not taken the packet by then is disconnected, with a line
/// naming it, and nothing more is sent to it.  True once the peer took the
/// packet.
bool send_to_client_patiently(comm_socket_v4_client* client, comm_socket_v4_packet* packet);
