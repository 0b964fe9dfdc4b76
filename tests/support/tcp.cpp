#include "tcp.h"

#include "daemon.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace q9test {

int connect_loopback(int port, std::chrono::milliseconds limit)
{
    int fd = -1;
    wait_until(
        [&] {
            fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(port));
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
                return true;
            ::close(fd);
            fd = -1;
            return false;
        },
        limit);
    return fd;
}

int connect_from(const std::string& source, const std::string& destination, int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, source.c_str(), &local.sin_addr) == 1 &&
        inet_pton(AF_INET, destination.c_str(), &remote.sin_addr) == 1 &&
        bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0 &&
        connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)) == 0)
        return fd;
    ::close(fd);
    return -1;
}

bool send_all(int fd, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}

std::string receive_available(int fd)
{
    std::string received;
    char buffer[4096];
    ssize_t length;
    while ((length = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
        received.append(buffer, static_cast<size_t>(length));
    return received;
}

TcpPeer::TcpPeer() : TcpPeer(trigger_port) {}

TcpPeer::TcpPeer(int port) : fd_(connect_loopback(port)) {}

TcpPeer::TcpPeer(const std::string& source, const std::string& destination)
    : fd_(connect_from(source, destination, trigger_port))
{
}

TcpPeer::~TcpPeer()
{
    close();
}

bool TcpPeer::send(const std::string& bytes)
{
    return send_all(fd_, bytes);
}

std::string TcpPeer::receive(size_t count, std::chrono::milliseconds limit)
{
    std::string received;
    auto deadline = Clock::now() + limit;
    while (received.size() < count && Clock::now() < deadline) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, 10) <= 0)
            continue;
        char buffer[4096];
        size_t wanted = std::min(sizeof(buffer), count - received.size());
        ssize_t length = recv(fd_, buffer, wanted, 0);
        if (length <= 0)
            break;
        received.append(buffer, static_cast<size_t>(length));
    }
    return received;
}

std::string TcpPeer::available()
{
    return receive_available(fd_);
}

bool TcpPeer::wait_closed(std::chrono::milliseconds limit)
{
    return wait_until(
        [&] {
            char byte;
            ssize_t length = recv(fd_, &byte, 1, MSG_DONTWAIT);
            return length == 0 || (length < 0 && errno != EAGAIN);
        },
        limit);
}

bool TcpPeer::closed_without_a_byte(std::chrono::milliseconds limit)
{
    ssize_t length = -1;
    int error = EAGAIN;
    wait_until(
        [&] {
            char byte;
            length = recv(fd_, &byte, 1, MSG_DONTWAIT);
            error = errno;
            return length >= 0 || error != EAGAIN;
        },
        limit);
    return length == 0 || (length < 0 && error == ECONNRESET);
}

void TcpPeer::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

}  // namespace q9test
