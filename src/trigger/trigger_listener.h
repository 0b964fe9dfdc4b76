// The TCP trigger listener and its table of connections.
#pragma once

#include "trigger/tcp_trigger_client.h"

#include <map>

/// TCP port of the listener (low 16 bits used).
extern int tcp_trigger_port;
/// Listening socket, -1 while closed.
extern int tcp_trigger_fd;
/// Accepted connections by the descriptor `accept` returned; at most four.
extern std::map<int, TCPTriggerClient> tcp_clients;

/// Opens the listener unless it is open: 0, or -1 (and `tcp_trigger_fd` -1).
int tcp_trigger_open();
/// Closes the listener if it is open.
void tcp_trigger_close();
/// One step for all connections: read each, sweep closed ones, accept new
/// ones while fewer than four are open.
void service_all_tcp_clients();
/// Closes and forgets every connection, without replies or messages.
void drop_all_tcp_clients();
