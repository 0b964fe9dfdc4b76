#include "manager_sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace q9test {

std::string listen_fdnames(const std::vector<std::string>& names)
{
    std::string setting = "LISTEN_FDNAMES=";
    for (size_t i = 0; i < names.size(); ++i)
        setting += (i == 0 ? "" : ":") + names[i];
    return setting;
}

ManagerSockets::~ManagerSockets()
{
    for (int fd : fds_)
        close(fd);
}

int ManagerSockets::listen_tcp(const std::string& address, int port, const std::string& name)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    bound.sin_port = htons(static_cast<uint16_t>(port));
    int on = 1;
    if (inet_pton(AF_INET, address.c_str(), &bound.sin_addr) != 1 ||
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&bound), sizeof(bound)) != 0 || listen(fd, SOMAXCONN) != 0) {
        close(fd);
        return -1;
    }
    add(fd, name);
    return fd;
}

int ManagerSockets::listen_unix(const std::string& path, const std::string& name)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un bound{};
    bound.sun_family = AF_UNIX;
    strncpy(bound.sun_path, path.c_str(), sizeof(bound.sun_path) - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&bound), sizeof(bound)) != 0 ||
        chmod(path.c_str(), 0666) != 0 || listen(fd, SOMAXCONN) != 0) {
        close(fd);
        return -1;
    }
    add(fd, name);
    return fd;
}

void ManagerSockets::add(int fd, const std::string& name)
{
    fds_.push_back(fd);
    names_.push_back(name);
}

Handover ManagerSockets::handover() const
{
    return {fds_, {listen_fdnames(names_)}};
}

}  // namespace q9test
