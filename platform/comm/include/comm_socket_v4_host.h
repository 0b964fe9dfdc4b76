// What the host build of the packet-socket library offers beyond the
// appliance's own library: a server ending a peer, a server on a listening
// socket that someone else made, the descriptors a caller waits on, and the
// user a peer connected as.  The daemon's units that use it come in two
// variants, <stem>_host.cpp built on this and <stem>_sdk.cpp built without it.
#pragma once

#include "comm_socket_v4.h"

#include <sys/types.h>

/// Ends the connection of a live peer from the server's side: its queued
/// requests are released and it is reported once by
/// comm_socket_v4_get_disconnected_client(), like a peer that went away,
/// for the caller to free.  A peer already gone, or null, is left alone.
void comm_socket_v4_disconnect_client(comm_socket_v4_client* client);

/// Makes the fresh endpoint `sock` the server of `fd`, a Unix-domain stream
/// socket that listens already (one a service manager handed over): it is
/// made non-blocking and close-on-exec and then served as
/// comm_socket_v4_create_server() serves its own.  The endpoint owns the
/// descriptor from then on, but not the socket file: comm_socket_v4_close()
/// and comm_socket_v4_destroy() close the descriptor and never remove the
/// file, which belongs to whoever bound it.  Non-zero, with `fd` left open,
/// when `fd` is not a listening Unix-domain stream socket or the endpoint is
/// already in use.
int comm_socket_v4_adopt_server(comm_socket_v4* sock, int fd);

/// The user id of the process that connected as the peer `client`, from
/// the peer credentials the kernel gave when the server accepted it
/// (SO_PEERCRED): known from then until comm_socket_v4_free_client(), also
/// after the peer went away.  0 with `*uid` set; -1 when `client` or `uid`
/// is null or the kernel gave no credentials.
int comm_socket_v4_client_uid(const comm_socket_v4_client* client, uid_t* uid);

struct pollfd;

/// What a caller that waits for the endpoint in poll() must watch.  Writes
/// up to `capacity` entries to `fds`, one per descriptor the endpoint reads
/// or writes (a server's listening socket and every live peer, or a client's
/// connection): POLLIN, with POLLOUT while output is kept for it or while
/// its connect is under way.  Returns how many entries the endpoint needs,
/// which may be more than `capacity`.  Lowers `*wake_at` (microseconds of
/// monotonic_clock_us()) to when the endpoint needs its idle call although
/// no descriptor became ready: 0 while something is already queued for the
/// caller (a peer accepted or gone, a packet received), or the time of a
/// connect retry or of a connect's timeout.
size_t comm_socket_v4_poll_descriptors(comm_socket_v4* sock, struct pollfd* fds, size_t capacity,
                                       uint64_t* wake_at);
