// Peers on packet sockets, made with the packet-socket library itself: a
// client such as a local program of the command service, and a service
// that stands where another program's server would.
#pragma once

#include "no_copy.h"
#include "daemon.h"
#include "packets.h"

#include <functional>
#include <string>
#include <vector>

namespace q9test {

/// A plain blocking stream connection to the Unix socket at `path`, or -1.
int connect_unix(const std::string& path);

/// A client connection to a packet-socket server, by default the daemon's
/// command service.
class PacketClient : NoCopy {
public:
    /// Connects to `path`, retrying until the server takes the connection or
    /// the deadline passes.
    explicit PacketClient(const std::string& path = service_path);
    ~PacketClient();

    bool connected() const;
    /// The connection's descriptor, to wait on it.
    int fd() const;
    /// Sends one request; `reply_wanted` sets flags bit 0, bit 1 is always set.
    bool send(const std::string& command, const Pairs& pairs = {}, bool reply_wanted = true,
              uint64_t reference = 0);
    /// Sends one packet with exactly `flags` in its header and `arguments`
    /// in its argument list.
    bool send_packet(uint8_t flags, uint64_t reference, const std::string& command,
                     const std::vector<std::string>& arguments = {}, const Pairs& pairs = {});
    /// The next packet from the server, or false at the deadline or when the
    /// connection broke.
    bool receive(Packet& packet, std::chrono::milliseconds limit = default_wait);
    /// send() and then receive() of the reply.
    bool request(Packet& reply, const std::string& command, const Pairs& pairs = {},
                 uint64_t reference = 0);

private:
    comm_socket_v4* sock_ = nullptr;
};

/// The reply to one request on `client`; an empty packet when none came.
Packet ask(PacketClient& client, const std::string& command, const Pairs& pairs = {},
           uint64_t reference = 0);
/// "COMMAND / STATUS / RESULT" of a reply, to compare a reply in one line.
std::string reply_summary(const Packet& reply);
/// The value of `name` in the daemon's status reply on `client`, or
/// "(absent)".
std::string status_value(PacketClient& client, const std::string& name);
/// The same on a connection of its own.
std::string status_value(const std::string& name);

/// A server at a socket path that records every request and answers those
/// that want a reply with whatever `answer` writes (no answer when unset).
class FakeService : NoCopy {
public:
    explicit FakeService(const std::string& path);
    ~FakeService();

    bool listening() const { return sock_ != nullptr; }
    /// Serves until `condition` holds or `limit` passes; false at the limit.
    bool serve_until(const std::function<bool()>& condition,
                     std::chrono::milliseconds limit = default_wait);
    /// Sends an unsolicited "notify" packet (status "OK", the one argument
    /// `command`, `pairs`) to the client that sent the last request.
    bool notify(const std::string& command, const Pairs& pairs);
    /// Ends the server: every client sees its connection closed.
    void stop();

    /// Writes the reply to a request; the header is already copied from it.
    std::function<void(const Packet& request, comm_socket_v4_packet* reply)> answer;
    /// Every request received so far.
    std::vector<Packet> requests;

private:
    void serve_once();

    comm_socket_v4* sock_ = nullptr;
    comm_socket_v4_client* last_client_ = nullptr;
};

}  // namespace q9test
