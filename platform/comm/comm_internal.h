// State and helpers shared by the files of the packet-socket library.
#pragma once

#include "comm_socket_v4.h"
#include "frame.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// Takes the front of `queue` out of it; `none` when the queue is empty.
template <typename T>
T take_front(std::deque<T>& queue, T none = T())
{
    if (queue.empty())
        return none;
    T front = std::move(queue.front());
    queue.pop_front();
    return front;
}

/// Frames taken from one connection per idle call at most, so that a peer
/// that keeps sending cannot hold the caller's loop.
constexpr int FRAMES_PER_IDLE = 64;

// Stream I/O (stream.cpp) ----------------------------------------------------

/// The frame being taken in from one connection.
struct FrameInput {
    unsigned char prefix[FRAME_PREFIX_SIZE];
    unsigned char* frame = nullptr;  ///< from malloc(), once the prefix was accepted
    size_t received = 0;             ///< bytes of the prefix, then of the frame

    FrameInput() = default;
    FrameInput(const FrameInput&) = delete;
    FrameInput& operator=(const FrameInput&) = delete;
    ~FrameInput() { std::free(frame); }
    /// Drops a partly received frame.
    void reset();
};

/// Bytes accepted for a connection that its socket has not taken yet.
struct PendingOutput {
    std::vector<unsigned char> bytes;
    size_t written = 0;

    bool empty() const { return written == bytes.size(); }
    size_t size() const { return bytes.size() - written; }
    /// Appends bytes after what is still pending.
    void keep(const unsigned char* data, size_t length);
    /// Drops everything, memory included.
    void reset();
};

enum class ReadResult {
    FRAME,   ///< one checked frame was taken in
    AGAIN,   ///< nothing more to read now
    CLOSED,  ///< the peer closed the connection
    BROKEN,  ///< a read error, or the peer sent something that is not a frame
};

/// Reads from `fd` until one frame is complete (stored in `*frame`, from
/// malloc(), owned by the caller) or nothing more can be read now.
ReadResult read_frame(int fd, FrameInput& input, unsigned char** frame);
/// Writes what the socket takes now: the byte count, 0 when it takes
/// nothing, -1 when the connection is gone.  Never raises SIGPIPE.
ssize_t send_bytes(int fd, const unsigned char* data, size_t length);
/// Writes pending output: 1 when none is left, 0 when some is, -1 when the
/// connection is gone.
int flush_output(int fd, PendingOutput& output);
/// Fills a Unix-domain address; false when `path` does not fit.
bool unix_address(const char* path, sockaddr_un* address);
/// A non-blocking, close-on-exec Unix-domain stream socket, or -1.
int unix_stream_socket();

// Packets (packet.cpp) -------------------------------------------------------

/// A received packet owning `frame`, its header fields filled from it; null
/// (and the frame freed) when memory runs out.
comm_socket_v4_packet* packet_from_frame(unsigned char* frame);
/// The packet's finished frame with the record's flags, reference and
/// result written into its header, or null when the packet is not finished.
const unsigned char* packet_frame_to_send(comm_socket_v4_packet* packet);

// Endpoints ------------------------------------------------------------------

/// The client role of an endpoint: one connection to a server.
struct ClientState {
    sockaddr_un address{};
    uint64_t connect_started = 0;
    /// Set while a connect that the server's full listen queue turned away
    /// waits to be retried at `next_retry`.
    bool retrying = false;
    uint64_t next_retry = 0;
    FrameInput input;
    PendingOutput output;
    std::deque<comm_socket_v4_packet*> received;

    ClientState() = default;
    ClientState(const ClientState&) = delete;
    ClientState& operator=(const ClientState&) = delete;
    ~ClientState();
};

/// The server role of an endpoint: the listening socket's file and peers.
struct ServerState {
    /// The socket file this endpoint bound; empty for an adopted socket,
    /// whose file is not the endpoint's to remove.
    std::string path;
    dev_t device = 0;  ///< identity of the socket file bound, so that only it is removed
    ino_t inode = 0;
    std::deque<comm_socket_v4_client*> accepted;
    std::deque<comm_socket_v4_client*> disconnected;
    std::deque<std::pair<comm_socket_v4_client*, comm_socket_v4_packet*>> requests;
    /// Reused by every idle call so that polling allocates nothing.
    std::vector<pollfd> poll_set;
    std::vector<comm_socket_v4_client*> polled;
};

struct comm_socket_v4_endpoint_state {
    uint64_t connect_timeout_us = 5000000;
    uint64_t connect_retry_us = 10000;
    std::unique_ptr<ClientState> client;
    std::unique_ptr<ServerState> server;
};

/// One accepted peer of a server endpoint.
struct comm_socket_v4_client {
    comm_socket_v4* server;
    unsigned long index;
    int fd;  ///< negative once the peer is gone
    FrameInput input;
    PendingOutput output;  ///< the unwritten rest of one frame at most
    bool uid_known;        ///< the kernel gave the peer's credentials at accept
    uid_t uid;             ///< the user id the peer connected as, when known
};

// Client role (client.cpp).
int client_idle(comm_socket_v4* sock);
/// Closes the connection; received packets stay queued.
void client_shut(comm_socket_v4* sock);

// Server role (server.cpp, peers.cpp).
int server_idle(comm_socket_v4* sock);
/// Closes the listening socket, removes its file if the endpoint bound it
/// and it is still the one bound, and disconnects every peer.
void server_shut(comm_socket_v4* sock);
/// Accepts every waiting peer; false when the listening socket is unusable.
bool accept_peers(comm_socket_v4* sock);
/// Takes in what the peer sent; a peer that broke the protocol or hung up
/// is disconnected.
void peer_read(comm_socket_v4_client* peer);
/// Closes the peer's connection and reports it as disconnected, once.
void peer_disconnect(comm_socket_v4_client* peer);
/// What a poll of the live peer waits for: input, and room for output
/// while some is kept for it.
short peer_poll_events(const comm_socket_v4_client* peer);
