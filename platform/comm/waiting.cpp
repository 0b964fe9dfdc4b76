// What an endpoint needs watched by a caller that waits instead of polling
// it at a fixed rate.
#include "comm_internal.h"
#include "comm_socket_v4_host.h"

#include <algorithm>

namespace {

void lower(uint64_t* wake_at, uint64_t when)
{
    *wake_at = std::min(*wake_at, when);
}

size_t add(pollfd* fds, size_t capacity, size_t count, int fd, short events)
{
    if (count < capacity)
        fds[count] = pollfd{fd, events, 0};
    return count + 1;
}

size_t server_descriptors(comm_socket_v4* sock, pollfd* fds, size_t capacity, uint64_t* wake_at)
{
    const ServerState& server = *sock->state->server;
    if (!server.accepted.empty() || !server.disconnected.empty() || !server.requests.empty())
        lower(wake_at, 0);
    if (sock->fd < 0)
        return 0;
    size_t count = add(fds, capacity, 0, sock->fd, POLLIN);
    for (comm_socket_v4_client* peer : sock->clients)
        if (peer != nullptr && peer->fd >= 0)
            count = add(fds, capacity, count, peer->fd, peer_poll_events(peer));
    return count;
}

size_t client_descriptors(comm_socket_v4* sock, pollfd* fds, size_t capacity, uint64_t* wake_at)
{
    const ClientState& client = *sock->state->client;
    if (!client.received.empty())
        lower(wake_at, 0);
    if (sock->fd < 0)
        return 0;
    if (sock->established)
        return add(fds, capacity, 0, sock->fd, client.output.empty() ? POLLIN : POLLIN | POLLOUT);
    lower(wake_at, client.connect_started + sock->state->connect_timeout_us);
    if (client.retrying) {
        lower(wake_at, client.next_retry);
        return 0;
    }
    return add(fds, capacity, 0, sock->fd, POLLOUT);
}

}  // namespace

size_t comm_socket_v4_poll_descriptors(comm_socket_v4* sock, pollfd* fds, size_t capacity,
                                       uint64_t* wake_at)
{
    if (sock == nullptr || wake_at == nullptr)
        return 0;
    if (sock->state->server)
        return server_descriptors(sock, fds, capacity, wake_at);
    if (sock->state->client)
        return client_descriptors(sock, fds, capacity, wake_at);
    return 0;
}
