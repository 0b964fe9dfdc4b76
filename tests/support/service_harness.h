// Test side of the local command service: the daemon's endpoint at its fixed
// path, local programs talking to it, and a media-item service that records
// what it is asked to start.
#pragma once

#include "no_copy.h"
#include "packets.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using q9test::Pairs;
using q9test::take_packet;

/// Calls handle_server_socket() until `done` holds; false after 10 s.
bool serve_until(const std::function<bool()>& done);

/// A request as a local program sends it; by default it asks for a reply.
struct Request {
    Request(std::string command, Pairs pairs = {}, std::vector<std::string> arguments = {},
            uint8_t flags = q9test::reply_wanted_flags,
            uint64_t reference = 0)
        : command(std::move(command)), pairs(std::move(pairs)), arguments(std::move(arguments)),
          flags(flags), reference(reference)
    {
    }

    std::string command;
    Pairs pairs;
    std::vector<std::string> arguments;
    uint8_t flags;
    uint64_t reference;
};

/// A local program connected to the command server.  Its record exists once
/// the constructor returns.
class LocalClient : q9test::NoCopy {
public:
    LocalClient();
    ~LocalClient();

    /// The server's index of this client.
    unsigned long index() const { return index_; }
    /// The client's endpoint.
    comm_socket_v4* endpoint() const { return endpoint_; }
    /// Sends the request; nothing is served yet.
    void send(const Request& request);
    /// Serves the command server until this client has a packet; none after 10 s.
    std::optional<q9test::Packet> receive();
    /// send() then receive().
    std::optional<q9test::Packet> ask(const Request& request);
    /// Hangs up; the server is not served.
    void hang_up();
    /// Hangs up and serves until the server dropped the record.
    void disconnect();

private:
    comm_socket_v4* endpoint_;
    unsigned long index_ = ~0ul;
};

/// Fresh maps and the daemon's endpoint listening at its fixed path.
class ServiceTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

/// The media-item service at its fixed path, recording each request as
/// "COMMAND ARGUMENT...".
class MediaItemService : q9test::NoCopy {
public:
    MediaItemService();
    ~MediaItemService();

    /// The first `count` requests received; fewer if they do not come within 10 s.
    std::vector<std::string> requests(size_t count);

private:
    void collect();
    comm_socket_v4* endpoint_;
    std::vector<std::string> requests_;
};

/// Fills the socket buffer of the server's peer at `index` with packets
/// until the library refuses the next one; returns how many it took.
int fill_peer(unsigned long index);
/// Reads and drops on `client` whatever has arrived, until nothing more
/// arrives for a moment; returns the number of packets dropped.
int drain(LocalClient& client);
