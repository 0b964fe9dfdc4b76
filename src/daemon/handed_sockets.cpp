#include "daemon/handed_sockets.h"

#include "appliance_util.h"
#include "daemon/command_socket_adoption.h"
#include "daemon/process_state.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <utility>

namespace {

/// A handed-over descriptor kept for the socket it is to serve.
struct Handed {
    int fd = -1;
    std::string name;         ///< its entry of LISTEN_FDNAMES ("unknown" without one)
    std::string description;  ///< what it is, for its line
};

Handed trigger_listener;
Handed command_socket;
std::vector<StoredDescriptor> stored;

/// An int-valued SOL_SOCKET option of `fd`, or -1.
int socket_option(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof(value);
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

const char* family_text(int family)
{
    switch (family) {
    case AF_INET:
        return "IPv4";
    case AF_INET6:
        return "IPv6";
    case AF_UNIX:
        return "Unix";
    default:
        return "other";
    }
}

const char* type_text(int type)
{
    switch (type) {
    case SOCK_STREAM:
        return "stream";
    case SOCK_DGRAM:
        return "datagram";
    case SOCK_SEQPACKET:
        return "seqpacket";
    default:
        return "other";
    }
}

/// The path a Unix socket is bound to; empty when it has none, or only a
/// name in the abstract namespace.
std::string unix_path(const sockaddr_un& address, socklen_t length)
{
    size_t offset = offsetof(sockaddr_un, sun_path);
    if (length <= offset || address.sun_path[0] == '\0')
        return "";
    return std::string(address.sun_path, strnlen(address.sun_path, length - offset));
}

/// Where `fd` is bound, as an operator writes it.
std::string address_text(int fd)
{
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return "unbound";
    char text[INET6_ADDRSTRLEN] = "";
    if (address.ss_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof(text));
        return std::string(text) + ":" + std::to_string(ntohs(ipv4.sin_port));
    }
    if (address.ss_family == AF_INET6) {
        const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &ipv6.sin6_addr, text, sizeof(text));
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(ipv6.sin6_port));
    }
    if (address.ss_family == AF_UNIX) {
        std::string path = unix_path(reinterpret_cast<const sockaddr_un&>(address), length);
        return path.empty() ? "without a path" : path;
    }
    return "unknown address";
}

std::string description_of(int fd)
{
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode))
        return "not a socket";
    return std::string(family_text(socket_option(fd, SO_DOMAIN))) + " " +
           type_text(socket_option(fd, SO_TYPE)) + " socket " + address_text(fd) +
           (socket_option(fd, SO_ACCEPTCONN) == 1 ? ", listening" : ", not listening");
}

bool listens(int fd, int family, int type)
{
    return socket_option(fd, SO_DOMAIN) == family && socket_option(fd, SO_TYPE) == type &&
           socket_option(fd, SO_ACCEPTCONN) == 1;
}

bool is_trigger_listener(int fd)
{
    return listens(fd, AF_INET, SOCK_STREAM) && socket_option(fd, SO_PROTOCOL) == IPPROTO_TCP;
}

bool is_tcp_connection(int fd)
{
    return socket_option(fd, SO_DOMAIN) == AF_INET && socket_option(fd, SO_TYPE) == SOCK_STREAM &&
           socket_option(fd, SO_PROTOCOL) == IPPROTO_TCP && socket_option(fd, SO_ACCEPTCONN) == 0;
}

// By the file, not its spelling: a socket unit names /run/..., the daemon
// /var/run/..., and on Debian one is a link to the other.
bool is_command_socket(int fd)
{
    if (!listens(fd, AF_UNIX, SOCK_STREAM))
        return false;
    sockaddr_un address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return false;
    std::string path = unix_path(address, length);
    struct stat bound {};
    struct stat served {};
    return !path.empty() && stat(path.c_str(), &bound) == 0 && stat(server_socket_path, &served) == 0 &&
           bound.st_dev == served.st_dev && bound.st_ino == served.st_ino;
}

void take(int fd, const char* name)
{
    if (is_stored_name(name)) {
        stored.push_back({fd, name, is_tcp_connection(fd)});
        return;
    }
    Handed handed{fd, name, description_of(fd)};
    if (trigger_listener.fd < 0 && is_trigger_listener(fd)) {
        trigger_listener = std::move(handed);
    } else if (command_socket.fd < 0 && is_command_socket(fd)) {
        command_socket = std::move(handed);
    } else {
        fprintf(stderr, "Handed-over fd %d (%s) is not used, closing it: %s\n", fd, name,
                handed.description.c_str());
        close(fd);
    }
}

}  // namespace

void take_handed_sockets()
{
    char** names = nullptr;
    int count = sd_listen_fds_with_names(1, &names);
    // Without LISTEN_FDNAMES every name is "unknown".
    for (int i = 0; i < count; ++i)
        take(SD_LISTEN_FDS_START + i, names[i]);
    for (char** name = names; name != nullptr && *name != nullptr; ++name)
        free(*name);
    free(names);
}

std::vector<StoredDescriptor> take_stored_descriptors()
{
    return std::exchange(stored, {});
}

int take_handed_trigger_listener()
{
    Handed handed = std::exchange(trigger_listener, Handed{});
    if (handed.fd < 0)
        return -1;
    // Its result is not looked at: a socket that listens takes the flag.
    fd_non_block(handed.fd);
    fprintf(stderr, "Handed-over fd %d (%s) is the trigger listener: %s\n", handed.fd, handed.name.c_str(),
            handed.description.c_str());
    return handed.fd;
}

int command_server_listen(comm_socket_v4* server)
{
    Handed handed = std::exchange(command_socket, Handed{});
    if (handed.fd >= 0) {
        if (adopt_command_socket(server, handed.fd)) {
            fprintf(stderr, "Handed-over fd %d (%s) is the command server's socket: %s\n", handed.fd,
                    handed.name.c_str(), handed.description.c_str());
            return 0;
        }
        fprintf(stderr, "Handed-over fd %d (%s) cannot be served by this build, closing it and making the command socket anew: %s\n", handed.fd,
                handed.name.c_str(), handed.description.c_str());
        close(handed.fd);
    }
    return comm_socket_v4_create_server(server, server_socket_path);
}
