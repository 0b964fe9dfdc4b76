// The client role: one connection to a server socket.
#include "comm_internal.h"
#include "appliance_util.h"

#include <errno.h>
#include <unistd.h>

#include <new>

namespace {

// Kept output of a client that the server does not read may grow this far;
// beyond it sends fail rather than eat the caller's memory.
constexpr size_t CLIENT_OUTPUT_LIMIT = 2 * FRAME_MAX_SIZE;

void set_established(comm_socket_v4* sock)
{
    sock->established = 1;
    sock->connect_pending = 0;
    sock->state->client->retrying = false;
}

// One connect call: 1 connected, 0 still pending, -1 failed (and shut).
int attempt_connect(comm_socket_v4* sock)
{
    ClientState& client = *sock->state->client;
    const sockaddr* address = reinterpret_cast<const sockaddr*>(&client.address);
    if (connect(sock->fd, address, sizeof(client.address)) == 0 || errno == EISCONN) {
        set_established(sock);
        return 1;
    }
    sock->connect_pending = 1;
    if (errno == EAGAIN) {
        client.retrying = true;
        client.next_retry = monotonic_clock_us() + sock->state->connect_retry_us;
        return 0;
    }
    if (errno == EINPROGRESS || errno == EALREADY || errno == EINTR)
        return 0;
    client_shut(sock);
    return -1;
}

// Whether a connect that went on in the background has completed (1),
// failed (-1, shut) or is still going on (0).
int background_connect_result(comm_socket_v4* sock)
{
    pollfd writable{sock->fd, POLLOUT, 0};
    if (poll(&writable, 1, 0) <= 0)
        return 0;
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(sock->fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0) {
        set_established(sock);
        return 1;
    }
    client_shut(sock);
    return -1;
}

// Moves a pending connect on: 1 connected, 0 still pending, -1 failed.
int advance_connect(comm_socket_v4* sock)
{
    ClientState& client = *sock->state->client;
    uint64_t now = monotonic_clock_us();
    int state = 0;
    if (!client.retrying)
        state = background_connect_result(sock);
    else if (now >= client.next_retry)
        state = attempt_connect(sock);
    if (state == 0 && now - client.connect_started >= sock->state->connect_timeout_us) {
        client_shut(sock);
        return -1;
    }
    return state;
}

// Takes in what the server sent: false once the connection is gone.
bool client_read(comm_socket_v4* sock)
{
    ClientState& client = *sock->state->client;
    for (int i = 0; i < FRAMES_PER_IDLE; ++i) {
        unsigned char* frame = nullptr;
        ReadResult result = read_frame(sock->fd, client.input, &frame);
        if (result == ReadResult::AGAIN)
            return true;
        comm_socket_v4_packet* packet =
            result == ReadResult::FRAME ? packet_from_frame(frame) : nullptr;
        if (packet == nullptr)
            return false;
        client.received.push_back(packet);
    }
    return true;
}

}  // namespace

ClientState::~ClientState()
{
    for (comm_socket_v4_packet* packet : received)
        comm_socket_v4_packet_release(packet);
}

void client_shut(comm_socket_v4* sock)
{
    if (sock->fd >= 0)
        close(sock->fd);
    sock->fd = -1;
    sock->established = 0;
    sock->connect_pending = 0;
    if (ClientState* client = sock->state->client.get()) {
        client->retrying = false;
        client->input.reset();
        client->output.reset();
    }
}

int comm_socket_v4_connect_to(comm_socket_v4* sock, const char* path)
{
    if (sock == nullptr || path == nullptr || sock->fd >= 0 || sock->state->server)
        return -1;
    sock->state->client.reset(new (std::nothrow) ClientState);
    ClientState* client = sock->state->client.get();
    if (client == nullptr || !unix_address(path, &client->address))
        return -1;
    sock->fd = unix_stream_socket();
    if (sock->fd < 0)
        return -1;
    client->connect_started = monotonic_clock_us();
    return attempt_connect(sock) < 0 ? -1 : 0;
}

int client_idle(comm_socket_v4* sock)
{
    if (sock->fd < 0 || !sock->state->client)
        return -1;
    if (!sock->established) {
        int connected = advance_connect(sock);
        if (connected <= 0)
            return connected;
    }
    if (!client_read(sock) || flush_output(sock->fd, sock->state->client->output) < 0) {
        client_shut(sock);
        return -1;
    }
    return 0;
}

comm_socket_v4_packet* comm_socket_v4_client_get_packet_from_server(comm_socket_v4* sock)
{
    if (sock == nullptr || !sock->state->client)
        return nullptr;
    return take_front(sock->state->client->received);
}

int comm_socket_v4_packet_send_to_server(comm_socket_v4* sock, comm_socket_v4_packet* packet)
{
    const unsigned char* frame = packet_frame_to_send(packet);
    if (sock == nullptr || sock->fd < 0 || !sock->state->client || frame == nullptr)
        return -1;
    size_t length = frame_length(frame);
    PendingOutput& output = sock->state->client->output;
    if (output.size() + length > CLIENT_OUTPUT_LIMIT)
        return 0;
    size_t sent = 0;
    if (sock->established && output.empty()) {
        ssize_t now = send_bytes(sock->fd, frame, length);
        if (now < 0) {
            client_shut(sock);
            return -1;
        }
        sent = static_cast<size_t>(now);
    }
    if (sent < length)
        output.keep(frame + sent, length - sent);
    return static_cast<int>(length);
}
