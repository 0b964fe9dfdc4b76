#include "ctl/trigger_client.h"

#include "ctl/output.h"

#include "appliance_util.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// A descriptor closed when it goes out of scope.
class Socket {
public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

// Waits until `fd` is ready for `events` or the deadline passes.
bool wait_ready(int fd, short events, uint64_t deadline)
{
    for (;;) {
        uint64_t now = monotonic_clock_us();
        if (now >= deadline)
            return false;
        pollfd pfd = {fd, events, 0};
        int timeout_ms = static_cast<int>(std::min<uint64_t>((deadline - now + 999) / 1000, 1000));
        int ready = poll(&pfd, 1, timeout_ms);
        if (ready > 0)
            return true;
        if (ready < 0 && errno != EINTR)
            return false;
    }
}

// 0 once connected, else the errno of the failure (ETIMEDOUT at the deadline).
int connect_before(int fd, const addrinfo* address, uint64_t deadline)
{
    if (connect(fd, address->ai_addr, address->ai_addrlen) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return errno;
    if (!wait_ready(fd, POLLOUT, deadline))
        return ETIMEDOUT;
    int failure = 0;
    socklen_t length = sizeof failure;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &length);
    return failure;
}

std::string quoted(const std::string& text)
{
    std::string shown = quote_if_needed(text);
    return shown[0] == '"' ? shown : "\"" + shown + "\"";
}

bool send_all(int fd, const std::string& bytes, uint64_t deadline, std::string* error)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            *error = std::string("cannot send the trigger: ") + strerror(errno);
            return false;
        }
        if (!wait_ready(fd, POLLOUT, deadline)) {
            *error = "cannot send the trigger: timed out";
            return false;
        }
    }
    return true;
}

// Reads as many bytes as the acknowledgement has, so that a wrong answer is
// shown whole and nothing of a later answer is taken.
int receive_acknowledgement(int fd, const std::string& expected, uint64_t deadline,
                            std::string* error)
{
    std::string received;
    while (received.size() < expected.size()) {
        char buffer[16];
        size_t want = std::min(sizeof buffer, expected.size() - received.size());
        ssize_t n = recv(fd, buffer, want, 0);
        if (n > 0) {
            received.append(buffer, static_cast<size_t>(n));
            continue;
        }
        if (n == 0) {
            *error = "the daemon closed the connection after " + quoted(received) +
                     " instead of the acknowledgement " + quoted(expected);
            return CTL_EXIT_FAILED;
        }
        if (errno != EAGAIN && errno != EINTR) {
            *error = std::string("cannot receive the acknowledgement: ") + strerror(errno);
            return CTL_EXIT_FAILED;
        }
        if (!wait_ready(fd, POLLIN, deadline)) {
            *error = "no acknowledgement within " + std::to_string(kTriggerTimeoutUs / 1000000) +
                     " s (received " + quoted(received) + ")";
            return CTL_EXIT_FAILED;
        }
    }
    if (received != expected) {
        *error = "unexpected acknowledgement " + quoted(received) + ", expected " + quoted(expected);
        return CTL_EXIT_FAILED;
    }
    return CTL_EXIT_OK;
}

}  // namespace

std::string trigger_message(const CtlInvocation& invocation)
{
    if (invocation.one_line)
        return "ONE LINE TRIGGER\n";
    std::string message = invocation.command + "\n";
    for (const auto& pair : invocation.pairs)
        message += pair.first + "=" + pair.second + "\n";
    return message + "\n";
}

std::string trigger_acknowledgement(const CtlInvocation& invocation)
{
    return invocation.one_line ? "OK\n" : "OK\n\n";
}

int send_trigger(const std::string& host, const std::string& port, const std::string& message,
                 const std::string& acknowledgement, std::string* error)
{
    const std::string where = host + ":" + port;
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* addresses = nullptr;
    int resolved = getaddrinfo(host.c_str(), port.c_str(), &hints, &addresses);
    if (resolved != 0) {
        *error = "cannot resolve " + host + ": " + gai_strerror(resolved);
        return CTL_EXIT_FAILED;
    }
    const uint64_t deadline = monotonic_clock_us() + kTriggerTimeoutUs;
    int failure = ECONNREFUSED;
    for (const addrinfo* address = addresses; address; address = address->ai_next) {
        Socket sock(socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                           address->ai_protocol));
        if (sock.fd() < 0) {
            failure = errno;
            continue;
        }
        failure = connect_before(sock.fd(), address, deadline);
        if (failure != 0)
            continue;
        freeaddrinfo(addresses);
        if (!send_all(sock.fd(), message, deadline, error))
            return CTL_EXIT_FAILED;
        return receive_acknowledgement(sock.fd(), acknowledgement, deadline, error);
    }
    freeaddrinfo(addresses);
    *error = "cannot connect to " + where + ": " + strerror(failure);
    if (failure != ECONNREFUSED)
        return CTL_EXIT_FAILED;
    *error += " (is the daemon running?)";
    return CTL_EXIT_NOT_RUNNING;
}
