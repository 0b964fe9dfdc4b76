// The server role: the listening socket, its file, and one poll of it all.
#include "comm_internal.h"

#include "appliance_util.h"
#include "comm_socket_v4_host.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <new>

namespace {

// Whether the socket file at `address` belongs to nobody any more: only a
// refused connection proves it.  A full listen queue, or anything else
// that keeps us from telling, counts as a live server.
bool socket_file_is_stale(const sockaddr_un& address)
{
    int probe = unix_stream_socket();
    if (probe < 0)
        return false;
    bool refused =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
        errno == ECONNREFUSED;
    close(probe);
    return refused;
}

// Makes room at `path` for a new socket file: nothing there, or a stale
// socket file that is removed.  Anything else stays where it is.
bool path_is_free(const char* path, const sockaddr_un& address)
{
    struct stat existing;
    if (lstat(path, &existing) != 0)
        return errno == ENOENT;
    if (!S_ISSOCK(existing.st_mode) || !socket_file_is_stale(address))
        return false;
    return unlink(path) == 0 || errno == ENOENT;
}

// A socket listening at `path`, its file recorded in `server`, or -1.
int listen_at(const char* path, const sockaddr_un& address, ServerState& server)
{
    int fd = unix_stream_socket();
    if (fd < 0)
        return -1;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    struct stat bound;
    // Every local program of the appliance may use a service, whatever the
    // umask of the process that offers it.
    if (lstat(path, &bound) != 0 || chmod(path, 0666) != 0 || listen(fd, SOMAXCONN) != 0) {
        unlink(path);
        close(fd);
        return -1;
    }
    server.path = path;
    server.device = bound.st_dev;
    server.inode = bound.st_ino;
    return fd;
}

// Puts the listening socket and every live peer into the reused poll set.
void fill_poll_set(comm_socket_v4* sock, ServerState& server)
{
    server.poll_set.clear();
    server.polled.clear();
    server.poll_set.push_back({sock->fd, POLLIN, 0});
    for (comm_socket_v4_client* peer : sock->clients) {
        if (peer == nullptr || peer->fd < 0)
            continue;
        server.poll_set.push_back({peer->fd, peer_poll_events(peer), 0});
        server.polled.push_back(peer);
    }
}

void serve_polled_peers(ServerState& server)
{
    for (size_t i = 0; i < server.polled.size(); ++i) {
        comm_socket_v4_client* peer = server.polled[i];
        short events = server.poll_set[i + 1].revents;
        if (events & (POLLIN | POLLHUP | POLLERR))
            peer_read(peer);
        if (peer->fd >= 0 && (events & POLLOUT) && flush_output(peer->fd, peer->output) < 0)
            peer_disconnect(peer);
    }
}

bool socket_option_is(int fd, int option, int wanted)
{
    int value = 0;
    socklen_t length = sizeof(value);
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 && value == wanted;
}

bool is_listening_unix_stream(int fd)
{
    return socket_option_is(fd, SO_DOMAIN, AF_UNIX) && socket_option_is(fd, SO_TYPE, SOCK_STREAM) &&
           socket_option_is(fd, SO_ACCEPTCONN, 1);
}

}  // namespace

int comm_socket_v4_create_server(comm_socket_v4* sock, const char* path)
{
    if (sock == nullptr || path == nullptr || sock->fd >= 0 || sock->state->client ||
        sock->state->server)
        return -1;
    sockaddr_un address;
    if (!unix_address(path, &address) || !path_is_free(path, address))
        return -1;
    std::unique_ptr<ServerState> server(new (std::nothrow) ServerState);
    if (!server)
        return -1;
    int fd = listen_at(path, address, *server);
    if (fd < 0)
        return -1;
    sock->fd = fd;
    sock->state->server = std::move(server);
    return 0;
}

int comm_socket_v4_adopt_server(comm_socket_v4* sock, int fd)
{
    if (sock == nullptr || fd < 0 || sock->fd >= 0 || sock->state->client || sock->state->server ||
        !is_listening_unix_stream(fd))
        return -1;
    std::unique_ptr<ServerState> server(new (std::nothrow) ServerState);
    if (!server || fd_non_block(fd) != 0 || fcntl(fd, F_SETFD, FD_CLOEXEC) != 0)
        return -1;
    sock->fd = fd;
    sock->state->server = std::move(server);
    return 0;
}

int server_idle(comm_socket_v4* sock)
{
    if (sock->fd < 0)
        return -1;
    ServerState& server = *sock->state->server;
    fill_poll_set(sock, server);
    if (poll(server.poll_set.data(), server.poll_set.size(), 0) < 0)
        return errno == EINTR ? 0 : -1;
    short listening = server.poll_set[0].revents;
    if (listening & (POLLERR | POLLHUP | POLLNVAL))
        return -1;
    serve_polled_peers(server);
    if ((listening & POLLIN) && !accept_peers(sock))
        return -1;
    return 0;
}

void server_shut(comm_socket_v4* sock)
{
    ServerState& server = *sock->state->server;
    if (sock->fd >= 0) {
        struct stat current;
        // Another server may have taken the path over since; its file stays.
        if (!server.path.empty() && lstat(server.path.c_str(), &current) == 0 &&
            current.st_dev == server.device && current.st_ino == server.inode)
            unlink(server.path.c_str());
        close(sock->fd);
        sock->fd = -1;
    }
    for (comm_socket_v4_client* peer : sock->clients)
        if (peer != nullptr)
            peer_disconnect(peer);
}
