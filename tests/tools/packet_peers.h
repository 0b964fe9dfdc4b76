// Packet-socket peers for the tools' tests, made with the packet-socket
// library itself: a service that stands where the daemon's local command
// service would, and a client for the simulated programs.
#pragma once

#include "comm_socket_v4.h"

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace q9tools {

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// A packet copied out of the library's record.
struct SeenPacket {
    std::string command;
    std::string status;
    std::vector<std::string> arguments;
    Pairs pairs;
    uint8_t flags = 0;
    uint64_t reference = 0;
    int64_t result = 0;
};

/// Copies a received (or completely written) packet.
SeenPacket copy_packet(const comm_socket_v4_packet* packet);

/// Writes a whole packet: command word, status word, arguments, pairs.
void write_packet(comm_socket_v4_packet* packet, const std::string& command,
                  const std::string& status, const std::vector<std::string>& arguments,
                  const Pairs& pairs);

/// A server at a socket path that records every request and answers those
/// that want a reply with whatever `answer` writes (no answer when unset).
class FakeService {
public:
    explicit FakeService(const std::string& path);
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    bool listening() const { return sock_ != nullptr; }
    /// Serves until `condition` holds or `limit` passes; false at the limit.
    bool serve_until(const std::function<bool()>& condition,
                     std::chrono::milliseconds limit = std::chrono::milliseconds(15000));
    /// Sends an unsolicited "notify" packet (status "OK", the one argument
    /// `command`, `pairs`) to the client that sent the last request.
    bool notify(const std::string& command, const Pairs& pairs);
    /// Ends the server: every client sees its connection closed.
    void stop();

    /// Writes the reply to a request; the header is already copied from it.
    std::function<void(const SeenPacket& request, comm_socket_v4_packet* reply)> answer;
    /// Every request received so far.
    std::vector<SeenPacket> requests;

private:
    void serve_once();

    comm_socket_v4* sock_ = nullptr;
    comm_socket_v4_client* last_client_ = nullptr;
};

/// A client connection to a packet-socket server.
class PacketClient {
public:
    explicit PacketClient(const std::string& path);
    ~PacketClient();
    PacketClient(const PacketClient&) = delete;
    PacketClient& operator=(const PacketClient&) = delete;

    bool connected() const;
    /// Sends one packet with `flags` and `reference`.
    bool send(uint8_t flags, uint64_t reference, const std::string& command,
              const std::vector<std::string>& arguments = {}, const Pairs& pairs = {});
    /// The next packet from the server, or false at the limit.
    bool receive(SeenPacket* packet,
                 std::chrono::milliseconds limit = std::chrono::milliseconds(15000));

private:
    comm_socket_v4* sock_ = nullptr;
};

}  // namespace q9tools
