// The peers of a server endpoint: their table, their queues, their I/O.
#include "comm_internal.h"
#include "comm_socket_v4_host.h"
#include "appliance_util.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <new>

namespace {

// The lowest free index of the peer table; the index of a peer that went
// away stays taken until it is freed, so indexes are never shared.
unsigned long lowest_free_index(const std::vector<comm_socket_v4_client*>& clients)
{
    auto free_slot = std::find(clients.begin(), clients.end(), nullptr);
    return static_cast<unsigned long>(free_slot - clients.begin());
}

void add_peer(comm_socket_v4* sock, comm_socket_v4_client* peer)
{
    if (peer->index == sock->clients.size())
        sock->clients.push_back(peer);
    else
        sock->clients[peer->index] = peer;
    sock->max_client_index = sock->clients.size() - 1;
    sock->state->server->accepted.push_back(peer);
}

void remove_peer(comm_socket_v4* sock, comm_socket_v4_client* peer)
{
    sock->clients[peer->index] = nullptr;
    while (!sock->clients.empty() && sock->clients.back() == nullptr)
        sock->clients.pop_back();
    sock->max_client_index = sock->clients.empty() ? 0 : sock->clients.size() - 1;
}

void forget(std::deque<comm_socket_v4_client*>& queue, comm_socket_v4_client* peer)
{
    queue.erase(std::remove(queue.begin(), queue.end(), peer), queue.end());
}

// The credentials are the connecting process's, fixed by the kernel at
// connect(): taken once here, they stay known after the peer hangs up.
void take_peer_uid(comm_socket_v4_client* peer)
{
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    peer->uid_known = getsockopt(peer->fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
                      length == sizeof(credentials);
    peer->uid = peer->uid_known ? credentials.uid : 0;
}

// Releases the requests of `peer` that nobody fetched yet.
void drop_requests(ServerState& server, comm_socket_v4_client* peer)
{
    auto& requests = server.requests;
    auto is_peers = [peer](const auto& request) { return request.first == peer; };
    for (auto& request : requests)
        if (is_peers(request))
            comm_socket_v4_packet_release(request.second);
    requests.erase(std::remove_if(requests.begin(), requests.end(), is_peers), requests.end());
}

// Milliseconds for poll() until `deadline`, rounded up so that a wait does
// not end just before it.
int poll_timeout(unsigned long deadline)
{
    uint64_t now = monotonic_clock_us();
    if (now >= deadline)
        return 0;
    return static_cast<int>(std::min<uint64_t>((deadline - now + 999) / 1000, INT_MAX));
}

}  // namespace

bool accept_peers(comm_socket_v4* sock)
{
    for (;;) {
        int fd = accept4(sock->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && (errno == EINTR || errno == ECONNABORTED))
            continue;
        // Running out of descriptors or memory is a bad moment, not a broken
        // listening socket: the waiting peers are accepted by a later idle.
        if (fd < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EMFILE || errno == ENFILE ||
                   errno == ENOBUFS || errno == ENOMEM;
        auto* peer = new (std::nothrow)
            comm_socket_v4_client{sock, lowest_free_index(sock->clients), fd, {}, {}, false, 0};
        if (peer == nullptr) {
            close(fd);
            return true;
        }
        take_peer_uid(peer);
        add_peer(sock, peer);
        peer_read(peer);
    }
}

void peer_read(comm_socket_v4_client* peer)
{
    for (int i = 0; i < FRAMES_PER_IDLE; ++i) {
        unsigned char* frame = nullptr;
        ReadResult result = read_frame(peer->fd, peer->input, &frame);
        if (result == ReadResult::AGAIN)
            return;
        comm_socket_v4_packet* packet =
            result == ReadResult::FRAME ? packet_from_frame(frame) : nullptr;
        if (packet == nullptr) {
            peer_disconnect(peer);
            return;
        }
        peer->server->state->server->requests.emplace_back(peer, packet);
    }
}

void peer_disconnect(comm_socket_v4_client* peer)
{
    if (peer->fd < 0)
        return;
    close(peer->fd);
    peer->fd = -1;
    peer->input.reset();
    peer->output.reset();
    peer->server->state->server->disconnected.push_back(peer);
}

short peer_poll_events(const comm_socket_v4_client* peer)
{
    return peer->output.empty() ? POLLIN : POLLIN | POLLOUT;
}

namespace {

// The peers a server has to tell about, oldest first; none on an endpoint
// that is not a server.
comm_socket_v4_client* take_peer(comm_socket_v4* sock, std::deque<comm_socket_v4_client*> ServerState::*queue)
{
    if (sock == nullptr || !sock->state->server)
        return nullptr;
    return take_front((*sock->state->server).*queue);
}

}  // namespace

comm_socket_v4_client* comm_socket_v4_accept_connection(comm_socket_v4* sock)
{
    return take_peer(sock, &ServerState::accepted);
}

comm_socket_v4_client* comm_socket_v4_get_disconnected_client(comm_socket_v4* sock)
{
    return take_peer(sock, &ServerState::disconnected);
}

void comm_socket_v4_disconnect_client(comm_socket_v4_client* client)
{
    if (client == nullptr || client->fd < 0)
        return;
    drop_requests(*client->server->state->server, client);
    peer_disconnect(client);
}

void comm_socket_v4_free_client(comm_socket_v4_client* client)
{
    if (client == nullptr)
        return;
    ServerState& server = *client->server->state->server;
    forget(server.accepted, client);
    forget(server.disconnected, client);
    drop_requests(server, client);
    if (client->fd >= 0)
        close(client->fd);
    remove_peer(client->server, client);
    delete client;
}

unsigned long comm_socket_v4_client_ptr2index(comm_socket_v4_client* client)
{
    return client != nullptr ? client->index : ~0ul;
}

int comm_socket_v4_client_uid(const comm_socket_v4_client* client, uid_t* uid)
{
    if (client == nullptr || uid == nullptr || !client->uid_known)
        return -1;
    *uid = client->uid;
    return 0;
}

comm_socket_v4_packet* comm_socket_v4_server_get_packet(comm_socket_v4* sock,
                                                        comm_socket_v4_client** client)
{
    if (sock == nullptr || !sock->state->server)
        return nullptr;
    auto request = take_front(sock->state->server->requests, {nullptr, nullptr});
    if (client != nullptr && request.second != nullptr)
        *client = request.first;
    return request.second;
}

int comm_socket_v4_wait_for_server_to_client_writeable(comm_socket_v4_client* client,
                                                       unsigned long deadline)
{
    if (client == nullptr || client->fd < 0)
        return -1;
    for (;;) {
        int flushed = flush_output(client->fd, client->output);
        if (flushed < 0) {
            peer_disconnect(client);
            return -1;
        }
        pollfd writable{client->fd, POLLOUT, 0};
        int ready = poll(&writable, 1, poll_timeout(deadline));
        if (ready < 0 && errno != EINTR)
            return -1;
        if (ready > 0 && (writable.revents & (POLLERR | POLLHUP | POLLNVAL)))
            return -1;
        if (ready > 0 && flushed == 1)
            return 0;
        if (monotonic_clock_us() >= deadline)
            return 1;
    }
}

int comm_socket_v4_packet_send_to_client(comm_socket_v4_client* client,
                                         comm_socket_v4_packet* packet)
{
    const unsigned char* frame = packet_frame_to_send(packet);
    if (client == nullptr || client->fd < 0 || frame == nullptr)
        return -1;
    int flushed = flush_output(client->fd, client->output);
    ssize_t sent = 0;
    size_t length = frame_length(frame);
    if (flushed > 0)
        sent = send_bytes(client->fd, frame, length);
    if (flushed < 0 || sent < 0) {
        peer_disconnect(client);
        return -1;
    }
    if (flushed == 0 || sent == 0)
        return 0;
    if (static_cast<size_t>(sent) < length)
        client->output.keep(frame + sent, length - static_cast<size_t>(sent));
    return static_cast<int>(length);
}
