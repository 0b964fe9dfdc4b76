// The TCP trigger listener and its table of connections.
#pragma once

#include "trigger/tcp_trigger_client.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

struct pollfd;

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

/// Bytes a connection may read per window of the waking loop: what the ten
/// steps of a classic pass read at most.
constexpr size_t tcp_window_budget = 2560;
/// One step of the waking loop: service_all_tcp_clients() with every
/// connection reading only what is left of its window's budget.  True when
/// the step found anything to do: bytes read, a connection closed, swept or
/// accepted.
bool service_tcp_clients_in_window();
/// Gives every connection the whole budget of a new window.
void open_tcp_window();
/// Adds to `fds` what the TCP side waits for: the listener while a place is
/// free, every connection that is still read and has budget left.  Lowers
/// `wake_at` to 0 when a closed connection waits for its sweep, and sets
/// `budget_spent` when a connection waits for the next window.
void tcp_wait_descriptors(std::vector<pollfd>& fds, uint64_t& wake_at, bool& budget_spent);
