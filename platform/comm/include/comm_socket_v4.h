// Packet-socket library of the appliance (libkelu_utils_v4_comm), host build.
//
// Local stream sockets carrying command packets: a command word, a status
// word, an ordered argument list and ordered name/value pairs.  One endpoint
// is either a client connection or a listening server.  Every socket is
// non-blocking; the only call that waits is
// comm_socket_v4_wait_for_server_to_client_writeable(), up to its deadline.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct comm_socket_v4_client;
struct comm_socket_v4_endpoint_state;
struct comm_socket_v4_packet_state;

/// One endpoint.  The daemon reads the first three fields and, on a server,
/// `clients` and `max_client_index`; everything else is the library's.
struct comm_socket_v4 {
    int fd;                    ///< socket descriptor; negative when there is no live socket
    unsigned established;      ///< bit 0: a client connection is fully set up
    unsigned connect_pending;  ///< bit 0: a client connection attempt is in progress
    /// Server only: one slot per client index, from 0; a free slot is null.
    std::vector<comm_socket_v4_client*> clients;
    /// Server only: highest client index that may currently be in use.
    uint64_t max_client_index;
    comm_socket_v4_endpoint_state* state;  ///< the library's own state
};

/// Bit 0 of comm_socket_v4_packet::flags: the sender asks for a reply.
constexpr uint8_t COMM_SOCKET_V4_REPLY_WANTED = 0x01;
/// Bit 1 of comm_socket_v4_packet::flags: set on packets an appliance program
/// originates, copied from a request into its reply.
constexpr uint8_t COMM_SOCKET_V4_MODE_BIT = 0x02;

/// One message.  A received packet has `data` pointing at its whole frame and
/// the three header fields filled from it.  On a packet being written, the
/// header fields are read when it is sent, so a field set after
/// comm_socket_v4_packet_write_end() still travels.
struct comm_socket_v4_packet {
    unsigned char* data;  ///< the frame in wire form, or null before write_end
    uint8_t flags;
    uint64_t reference;
    int64_t result;
    comm_socket_v4_packet_state* state;  ///< the library's own state
};

// Endpoint life and polling ------------------------------------------------

/// A fresh endpoint with no socket (`fd` negative), or null.
comm_socket_v4* comm_socket_v4_create();
/// Frees the endpoint and everything it owns (sockets, peers, queued
/// packets); a server removes its socket file if that is still the one it
/// bound.  Always returns null, for the owner to store back.
comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* sock);
/// Shuts a client connection; the handle stays allocated.  On a server it
/// closes the listening socket (removing its file) and reports every peer
/// as disconnected.
void comm_socket_v4_close(comm_socket_v4* sock);
/// Upper bound in microseconds for one connection attempt.
void comm_socket_v4_set_connect_timeout(comm_socket_v4* sock, unsigned long usec);
/// Interval in microseconds between retries of a connect that the peer's
/// full listen queue turned away.
void comm_socket_v4_set_connect_timeout_routine(comm_socket_v4* sock, unsigned long usec);
/// Starts a non-blocking connect to the stream socket at `path`.  Returns 0
/// with `established` or `connect_pending` set; -1 with `fd` negative on
/// failure.  An endpoint that already has a socket is refused with -1 and
/// left as it is.
int comm_socket_v4_connect_to(comm_socket_v4* sock, const char* path);
/// All pending non-blocking work of the endpoint.  Client: completes a
/// pending connect, reads and queues packets, flushes output; returns -1
/// once the connection is gone (and `fd` is then negative), else 0.
/// Server: accepts, reads and checks frames, queues requests with their
/// sender, notices hang-ups, flushes pending output; returns 0, or non-zero
/// when the listening socket is unusable.
int comm_socket_v4_idle(comm_socket_v4* sock);
/// Listens at `path` (mode 0666), replacing a stale socket file that nobody
/// answers on.  Non-zero when a live server answers there, when something
/// other than a socket stands at the path (it is left alone), when the
/// endpoint is already in use, or on any socket error.
int comm_socket_v4_create_server(comm_socket_v4* sock, const char* path);

// Client side --------------------------------------------------------------

/// The next packet received from the server, owned by the caller, or null.
comm_socket_v4_packet* comm_socket_v4_client_get_packet_from_server(comm_socket_v4* sock);
/// Writes the finished packet, or keeps its frame for the next idle (32 MiB
/// of kept output at most).  Returns the frame length; 0 when the kept
/// output is full (the frame is dropped); -1 when the connection is gone or
/// the packet is not finished.  The caller keeps the packet.
int comm_socket_v4_packet_send_to_server(comm_socket_v4* sock, comm_socket_v4_packet* packet);

// Server side --------------------------------------------------------------

/// The next newly accepted peer, or null when there is none left.
comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* sock);
/// The next peer that went away, or null.  Each is reported once.
comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* sock);
/// Frees a peer reported as disconnected, with its requests still queued;
/// its index becomes free for the next peer.
void comm_socket_v4_free_client(comm_socket_v4_client* client);
/// The peer's index, stable while it lives; all bits set when it has none.
unsigned long comm_socket_v4_client_ptr2index(comm_socket_v4_client* client);
/// The next queued request, in arrival order, with `*client` set to its
/// sender; null when none is queued.  The caller owns the packet.
comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4* sock,
                                                        comm_socket_v4_client** client);
/// Waits until the peer can take more output (its unwritten rest, if any,
/// is flushed meanwhile) or until `deadline`, in microseconds of
/// monotonic_clock_us().  0 when writeable, 1 at the deadline, -1 when the
/// peer is gone.
int comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* client,
                                                       unsigned long deadline);
/// Sends a finished packet to one peer.  The frame length when it was
/// written or accepted for later writing; 0 when the peer cannot take it now
/// (nothing was taken: wait and try again); -1 when the peer is gone or the
/// packet is not a finished frame.  The caller keeps the packet.
int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* client,
                                         comm_socket_v4_packet* packet);

// Packets ------------------------------------------------------------------

/// An empty packet (flags, reference and result 0), or null.
comm_socket_v4_packet* comm_socket_v4_packet_create();
/// Frees the packet; null is accepted and ignored.
void comm_socket_v4_packet_release(comm_socket_v4_packet* packet);
/// Starts the message afresh, also on a packet written to its end; leaves
/// `flags`, `reference` and `result` as they are.
void comm_socket_v4_packet_begin_writing(comm_socket_v4_packet* packet, unsigned long number,
                                         const char* command, const char* status);
/// Appends one argument.
void comm_socket_v4_packet_write_argv(comm_socket_v4_packet* packet, const char* arg);
/// Closes the argument list; pairs may follow.
void comm_socket_v4_packet_write_argv_end(comm_socket_v4_packet* packet);
/// Appends one name/value pair.
void comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name,
                                         const char* value);
/// Completes the frame into `data`; the packet may now be sent.
void comm_socket_v4_packet_write_end(comm_socket_v4_packet* packet);

