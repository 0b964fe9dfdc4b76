// The client side of the daemon's local command service.
#pragma once

#include "ctl/command_line.h"

#include "comm_socket_v4.h"

#include <csignal>
#include <cstdint>
#include <memory>
#include <string>

/// How long the client waits for the daemon: to connect, and for a reply.
constexpr uint64_t kServiceTimeoutUs = 5000000;

/// Releases a packet through the library.
struct PacketRelease {
    void operator()(comm_socket_v4_packet* packet) const;
};
/// A packet owned by the client.
using PacketPtr = std::unique_ptr<comm_socket_v4_packet, PacketRelease>;

/// What a wait for a packet ended with.
enum class WaitOutcome { Packet, Timeout, Closed, Interrupted };

/// One connection to the local command service.
class ServiceConnection {
public:
    ServiceConnection() = default;
    /// Closes and frees the connection.
    ~ServiceConnection();
    ServiceConnection(const ServiceConnection&) = delete;
    ServiceConnection& operator=(const ServiceConnection&) = delete;

    /// Connects to the service at `path` before `deadline` (microseconds of
    /// monotonic_clock_us()).  CTL_EXIT_OK; CTL_EXIT_NOT_RUNNING when nothing
    /// answers there; CTL_EXIT_FAILED when the connection is not accepted in
    /// time.  `error` says why it failed.
    int open(const char* path, uint64_t deadline, std::string* error);
    /// Sends the request `command` with `pairs`, asking for a reply that
    /// carries `reference`.  False, with `error` set, when it cannot be sent.
    bool send_request(const char* command, const NameValueList& pairs, uint64_t reference,
                      std::string* error);
    /// Waits for the next packet until `deadline`.  While waiting the signal
    /// mask is `sigmask` when it is not null, and a signal caught then ends
    /// the wait with Interrupted.
    WaitOutcome wait_for_packet(uint64_t deadline, const sigset_t* sigmask, PacketPtr* packet);

private:
    comm_socket_v4* sock_ = nullptr;
};

/// Sends `command` with `pairs` on `connection` and waits up to
/// kServiceTimeoutUs for the reply to it, skipping any other packet.
/// CTL_EXIT_OK with `reply` set, or CTL_EXIT_FAILED with `error` set.
int request_reply(ServiceConnection& connection, const char* command, const NameValueList& pairs,
                  PacketPtr* reply, std::string* error);
