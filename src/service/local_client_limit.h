// max_local_clients: how many local clients the command server serves at
// once.  0 is no limit, as in the classic daemon.
#pragma once

#include "comm_socket_v4.h"

/// Whether `client`, just accepted at `index`, gets a record: yes while
/// fewer than max_local_clients clients have one.  A client beyond the
/// limit is disconnected (its queued requests go with it) and gets no
/// record; a build whose packet-socket library cannot end a client's
/// connection keeps it and gives it one.  Either is written as one line
/// and counted.
bool admit_local_client(comm_socket_v4_client* client, unsigned long index);
