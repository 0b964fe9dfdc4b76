// One packet-socket server of the appliance simulator: it logs every
// request it receives and answers those that ask for a reply.
#pragma once

#include "comm_socket_v4.h"

#include <functional>
#include <string>

/// Called with every request a service receives, in arrival order.
using RequestLogger = std::function<void(const comm_socket_v4_packet* request)>;

/// A server endpoint at one socket path.
class PacketService {
public:
    PacketService(std::string path, RequestLogger log);
    /// Ends the endpoint and removes the socket file it made.
    ~PacketService();
    PacketService(const PacketService&) = delete;
    PacketService& operator=(const PacketService&) = delete;

    /// Listens at the path.  False, with `error` set, when that fails.
    bool open(std::string* error);
    /// Does all pending work: accepts and drops peers, logs and answers
    /// every queued request.  False once the listening socket is unusable.
    bool serve();
    /// The listening socket, to wait on for new peers.
    int listen_fd() const;
    /// The socket path.
    const std::string& path() const { return path_; }

private:
    void answer(comm_socket_v4_client* client, const comm_socket_v4_packet* request);

    std::string path_;
    RequestLogger log_;
    comm_socket_v4* sock_ = nullptr;
    bool listening_ = false;
};

/// The reply the simulator gives: the request's command word, status "OK",
/// no arguments, no pairs, result 0, the request's reference and mode bit.
void write_ok_reply(const comm_socket_v4_packet* request, comm_socket_v4_packet* reply);
