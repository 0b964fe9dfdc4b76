// Who may reach the trigger port: the address the listener binds
// (tcp_listen_address) and the addresses a connection may come from
// (tcp_allow).  With neither key set nothing here writes a line, closes a
// connection or calls the system: every peer is let in, as in the classic
// daemon.
#pragma once

#include "trigger/refusal_lines.h"

#include <netinet/in.h>

/// The lines about connections refused for their address.
extern RefusalLines tcp_refusal_lines;

/// Whether the connection just accepted on `fd` from `peer` may stay.  One
/// from an address tcp_allow does not list is closed at once, before a
/// byte is read or written, counted in daemon_counters.refusals.address
/// and told by tcp_refusal_lines; false then, and `fd` is no longer open.
bool admit_trigger_peer(int fd, const sockaddr_in& peer);
/// Writes the lines about refusals whose time has come; costs a comparison
/// while none waits.
void report_refusals_due();
/// Lowers `wake_at` (monotonic microseconds) to when a refusal's line is
/// due, so that a waiting loop wakes to write it although nothing arrives.
void refusal_line_wake(uint64_t& wake_at);
/// One line when tcp_listen_address is not what the listener serves: set on
/// a listener handed over by the service manager, which is served as it
/// came, or changed by a reload, which takes a restart.  Nothing while it
/// is.
void report_listen_address_in_force();
/// After a reload: report_listen_address_in_force(), and every open
/// connection from an address that tcp_allow no longer lists is closed
/// with a line.
void follow_trigger_access_settings();
