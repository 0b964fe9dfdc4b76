// Peers of the daemon's TCP trigger port.
#pragma once

#include "no_copy.h"
#include "waiting.h"

#include <string>

namespace q9test {

/// A blocking TCP connection to 127.0.0.1 at `port`, retried until it is
/// accepted or `limit` passes; -1 then.
int connect_loopback(int port, std::chrono::milliseconds limit = default_wait);

/// A blocking TCP connection from `source` to `destination`:`port`, the
/// client's socket bound to `source` (any address of the loopback
/// interface in the sandbox, 127.x.y.z) before one connect; -1 when the
/// connect fails.
int connect_from(const std::string& source, const std::string& destination, int port);

/// Sends every byte of `bytes` on `fd`; false when the peer is gone.
bool send_all(int fd, const std::string& bytes);
/// Everything that can be read from `fd` right now, without waiting.
std::string receive_available(int fd);

/// A TCP connection to the daemon's trigger port.
class TcpPeer : NoCopy {
public:
    /// Connects to 127.0.0.1:9876 (waits for the connect to complete).
    TcpPeer();
    /// Connects to 127.0.0.1:`port` instead, where a stand-in of the daemon
    /// listens.
    explicit TcpPeer(int port);
    /// Connects from `source` to `destination`:9876 with connect_from().
    TcpPeer(const std::string& source, const std::string& destination);
    ~TcpPeer();

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    /// Sends all of `bytes`.
    bool send(const std::string& bytes);
    /// Reads until `count` bytes arrived or the deadline passed.
    std::string receive(size_t count, std::chrono::milliseconds limit = default_wait);
    /// The bytes that have already arrived, without waiting for more.
    std::string available();
    /// True when the daemon closed the connection by the deadline.
    bool wait_closed(std::chrono::milliseconds limit = default_wait);
    /// True when the daemon closed the connection by the deadline, with an
    /// end of stream or a reset, before sending a single byte.
    bool closed_without_a_byte(std::chrono::milliseconds limit = default_wait);
    /// Closes the connection.
    void close();

private:
    int fd_ = -1;
};

}  // namespace q9test
