// Trigger connections that outlive the daemon: each accepted connection is
// handed to the service manager's descriptor store (descriptor_store.h)
// under a name of its own and taken out when it is closed; the next daemon
// is handed the stored connections back and serves them as open
// connections.  An orderly stop stores each connection's partly received
// message beside it, so a message that straddles a restart is completed
// and answered; after a crash the table of kept connections tells which
// connection was inside a message, and that one is closed rather than read
// from the middle of a message.  Nothing is stored while no store is used;
// connections handed back are served all the same.
#pragma once

#include "trigger/tcp_trigger_client.h"

#include <string>
#include <vector>

/// A descriptor handed back from the store, with its name.
struct StoredDescriptor {
    int fd;
    std::string name;
    bool tcp_connection;  ///< an IPv4 TCP socket that is not listening
};

/// Whether `name` is one the daemon gives what it stores: a handed-over
/// descriptor so named comes from the store, not from a socket unit.
bool is_stored_name(const std::string& name);

/// At start-up, with the trigger listener open and the store read
/// (descriptor_store_open()): serves the stored connections in `stored`
/// again, with their partly received messages, as far as the places of
/// tcp_clients go, and closes the others, each with a line; takes the
/// messages and anything unknown out of the store; keeps the table of kept
/// connections for this daemon, making it when none came back.  A line
/// names each connection taken back.
void take_back_kept_connections(const std::vector<StoredDescriptor>& stored);

/// A connection just accepted into tcp_clients goes into the store under a
/// name of its own, with its slot in the table; nothing while no store is
/// used.
void keep_connection(TCPTriggerClient& client);

/// A closed connection about to leave tcp_clients leaves the store and the
/// table.
void forget_kept_connection(TCPTriggerClient& client);

/// At an orderly stop, before the connections are dropped: the partly
/// received message of each kept connection inside a message goes into the
/// store, paired with its connection by name.
void keep_partial_messages();
