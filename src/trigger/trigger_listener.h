// The TCP trigger listener and its table of connections.
#pragma once

#include "trigger/tcp_trigger_client.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct pollfd;

/// Connections open at once at most: the places of tcp_clients.
constexpr size_t tcp_client_places = 4;

/// TCP port of the listener (low 16 bits used).
extern int tcp_trigger_port;
/// Listening socket, -1 while closed.
extern int tcp_trigger_fd;
/// The address tcp_trigger_open() bound the listener to; empty while it is
/// closed or when the listener was handed over, open already.
extern std::string tcp_trigger_address;
/// Accepted connections by the descriptor `accept` returned; at most four.
extern std::map<int, TCPTriggerClient> tcp_clients;

/// Opens the listener on tcp_listen_address unless it is open: 0, or -1
/// (and `tcp_trigger_fd` -1).
int tcp_trigger_open();
/// Closes the listener if it is open.
void tcp_trigger_close();
/// One step for all connections: read each (as far as its window allows),
/// close those idle for
/// tcp_idle_timeout_s, sweep closed ones, accept new ones while fewer than
/// four are open, refusing at most tcp_refusals_per_call connections from
/// addresses tcp_allow does not list, and write the refusal lines that are
/// due.
void service_all_tcp_clients();
/// Closes the daemon's descriptor of every connection and forgets them,
/// without replies or messages; a kept connection stays open in the
/// descriptor store.
void drop_all_tcp_clients();
/// Enters the open connection `fd` from `peer` into tcp_clients, where it
/// must not be yet, joining the window under way with its whole budget.
TCPTriggerClient& enter_tcp_client(int fd, const sockaddr_in& peer);

/// What the TCP service has done since start.
struct TcpServiceTotals {
    uint64_t accepted = 0;  ///< connections accepted
    uint64_t dropped = 0;   ///< connections swept after they closed
};
/// Kept by service_all_tcp_clients().
extern TcpServiceTotals tcp_service_totals;

/// service_all_tcp_clients(), answering whether the step found anything to
/// do: bytes read, a connection closed and swept, one accepted or refused.
bool service_tcp_step();
/// Starts a new window of the main loop: every connection may read
/// `tcp_bytes_per_window` bytes in it.  A connection accepted meanwhile
/// joins the window under way with that budget.
void open_tcp_window();
/// Adds to `fds` what the TCP side waits for: the listener while a place is
/// free, every connection that is still read and has budget left.  Lowers
/// `wake_at` to 0 when a closed connection waits for its sweep, to the
/// end of an open connection's idle time (tcp_idle_timeout_s) and to when
/// a refusal's line is due, and sets
/// `budget_spent` when a connection waits for the next window.
void tcp_wait_descriptors(std::vector<pollfd>& fds, uint64_t& wake_at, bool& budget_spent);
