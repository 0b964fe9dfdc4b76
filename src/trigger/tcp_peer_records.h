// What the operator's status view shows of each TCP trigger connection
// beyond the connection's own record: the peer's address and the messages
// handled.  Kept
// beside `tcp_clients`, by the same descriptor, for the status alone; the
// daemon's messages about a connection still name only its descriptor.
#pragma once

#include "trigger/tcp_trigger_client.h"

#include <netinet/in.h>

#include <cstdint>
#include <map>

/// The record of one accepted connection.
struct TcpPeerRecord {
    sockaddr_in peer{};     ///< the address accept() gave
    uint64_t messages = 0;  ///< complete messages handled
};

/// Records by the descriptor `accept` returned, as in `tcp_clients`.
extern std::map<int, TcpPeerRecord> tcp_peer_records;

/// Starts the record of a connection just accepted on `fd`.
void note_tcp_peer(int fd, const sockaddr_in& peer);
/// Forgets the record of `fd`, if any.
void forget_tcp_peer(int fd);
/// Counts one handled message in the record of `fd`, if any.
void count_tcp_message(int fd);
/// "stalled" once a line reached 1024 characters (the connection is never
/// read again), "reading" inside a message, "idle" between messages,
/// "closed" once the connection has ended.
const char* tcp_client_state(const TCPTriggerClient& client);
