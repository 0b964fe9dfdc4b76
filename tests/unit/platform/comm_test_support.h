// Helpers for the tests of the packet-socket library: endpoints that are
// destroyed with the test, waiting for conditions, building and reading
// messages, and raw test peers that write bytes of their own choosing.
#pragma once

#include "appliance_util.h"
#include "comm_socket_v4.h"
#include "frame.h"
#include "waiting.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

constexpr const char* TEST_SOCKET = "/var/run/comm_test.socket";

using q9test::wait_until;

/// A message as its parts, to build packets and to compare received ones.
struct Message {
    std::string command;
    std::string status;
    std::vector<std::string> arguments;
    std::vector<std::pair<std::string, std::string>> pairs;

    bool operator==(const Message& other) const
    {
        return command == other.command && status == other.status &&
               arguments == other.arguments && pairs == other.pairs;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Message& message)
{
    out << message.command << " / " << message.status << " /";
    for (const auto& argument : message.arguments)
        out << " [" << argument << "]";
    for (const auto& pair : message.pairs)
        out << " " << pair.first << "=" << pair.second;
    return out;
}

/// Writes `message` into `packet` in the one order the daemon uses.
inline void write_message(comm_socket_v4_packet* packet, const Message& message)
{
    comm_socket_v4_packet_begin_writing(packet, 0, message.command.c_str(), message.status.c_str());
    for (const auto& argument : message.arguments)
        comm_socket_v4_packet_write_argv(packet, argument.c_str());
    comm_socket_v4_packet_write_argv_end(packet);
    for (const auto& pair : message.pairs)
        comm_socket_v4_packet_write_nv_pair(packet, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet);
}

/// Reads a frame's message back through its table offsets.
inline Message read_message(const unsigned char* frame)
{
    auto text = [frame](size_t at) {
        return std::string(reinterpret_cast<const char*>(frame) + frame_load<uint32_t>(frame + at));
    };
    Message message{text(FRAME_COMMAND_AT), text(FRAME_STATUS_AT), {}, {}};
    size_t argv = frame_load<uint32_t>(frame + FRAME_ARGV_AT);
    for (size_t i = 0; i < frame_load<uint16_t>(frame + FRAME_ARGC_AT); ++i)
        message.arguments.push_back(text(argv + 4 * i));
    size_t pairs = frame_load<uint32_t>(frame + FRAME_PAIRS_AT);
    for (size_t i = 0; i < frame_load<uint16_t>(frame + FRAME_PAIR_COUNT_AT); ++i)
        message.pairs.emplace_back(text(pairs + 16 * i), text(pairs + 16 * i + 4));
    return message;
}

/// The Unix-domain address of `path`.
inline sockaddr_un address_of(const char* path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    return address;
}

/// A connected blocking Unix stream socket, or -1.  Its reads give up
/// after 10 s, so that a test fails rather than hangs.
inline int raw_connect(const char* path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval patience{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    sockaddr_un address = address_of(path);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/// A listening socket that the test accepts on by hand, with `backlog`.
inline int raw_listen(const char* path, int backlog)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = address_of(path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd, backlog) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/// Polls a client endpoint until its connection is set up.
inline bool wait_established(comm_socket_v4* client)
{
    return wait_until([&] { return comm_socket_v4_idle(client) == 0 && client->established; });
}

/// The frame of a finished packet as bytes, header stamped as a send would.
inline std::vector<unsigned char> frame_bytes(comm_socket_v4_packet* packet)
{
    frame_stamp(packet->data, packet->flags, packet->reference, packet->result);
    return std::vector<unsigned char>(packet->data, packet->data + frame_length(packet->data));
}

/// Expects `packet` to carry `message` with the header fields given.
inline void expect_packet(const comm_socket_v4_packet* packet, const Message& message, int flags,
                          uint64_t reference, int64_t result)
{
    EXPECT_EQ(message, read_message(packet->data));
    EXPECT_EQ(flags, packet->flags);
    EXPECT_EQ(reference, packet->reference);
    EXPECT_EQ(result, packet->result);
}

/// Fixture owning a server at TEST_SOCKET and the client endpoints and
/// packets a test makes; all of it is ended in TearDown.
class CommTest : public testing::Test {
protected:
    void TearDown() override
    {
        for (comm_socket_v4_packet* packet : packets)
            comm_socket_v4_packet_release(packet);
        for (comm_socket_v4* client : clients)
            comm_socket_v4_destroy(client);
        comm_socket_v4_destroy(server);
    }

    void start_server()
    {
        server = comm_socket_v4_create();
        ASSERT_EQ(0, comm_socket_v4_create_server(server, TEST_SOCKET));
    }

    /// A client endpoint owned by the fixture, not connected.
    comm_socket_v4* new_client()
    {
        clients.push_back(comm_socket_v4_create());
        return clients.back();
    }

    /// A client endpoint connected to TEST_SOCKET and accepted by the server.
    comm_socket_v4* connect_client(comm_socket_v4_client** peer = nullptr)
    {
        comm_socket_v4* client = new_client();
        EXPECT_EQ(0, comm_socket_v4_connect_to(client, TEST_SOCKET));
        comm_socket_v4_client* accepted = accept_peer();
        if (peer != nullptr)
            *peer = accepted;
        EXPECT_TRUE(wait_established(client));
        return client;
    }

    /// Connects a client endpoint as connect_client() does; the server's peer for it.
    comm_socket_v4_client* connect_peer()
    {
        comm_socket_v4_client* peer = nullptr;
        connect_client(&peer);
        return peer;
    }

    /// The next peer the server accepts, waiting for it.
    comm_socket_v4_client* accept_peer()
    {
        return serve_until_taken([&] { return comm_socket_v4_accept_connection(server); });
    }

    /// A finished packet owned by the fixture.
    comm_socket_v4_packet* packet_of(const Message& message, uint8_t flags = 0,
                                     uint64_t reference = 0, int64_t result = 0)
    {
        comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
        packets.push_back(packet);
        packet->flags = flags;
        packet->reference = reference;
        packet->result = result;
        write_message(packet, message);
        return packet;
    }

    /// The next request the server queues, waiting for it; owned by the fixture.
    comm_socket_v4_packet* next_request(comm_socket_v4_client** sender = nullptr)
    {
        comm_socket_v4_client* from = nullptr;
        comm_socket_v4_packet* request =
            serve_until_taken([&] { return comm_socket_v4_server_get_packet(server, &from); });
        packets.push_back(request);
        if (sender != nullptr)
            *sender = from;
        return request;
    }

    /// The next peer the server reports as gone, waiting for it.
    comm_socket_v4_client* next_disconnected()
    {
        return serve_until_taken([&] { return comm_socket_v4_get_disconnected_client(server); });
    }

    /// Serves the server until `take` yields something, waiting for it.
    template <typename Take>
    auto serve_until_taken(Take take) -> decltype(take())
    {
        decltype(take()) taken = nullptr;
        EXPECT_TRUE(wait_until([&] {
            comm_socket_v4_idle(server);
            return (taken = take()) != nullptr;
        }));
        return taken;
    }

    /// The next packet `client` receives, waiting for it; owned by the fixture.
    comm_socket_v4_packet* next_from_server(comm_socket_v4* client)
    {
        comm_socket_v4_packet* packet = nullptr;
        EXPECT_TRUE(wait_until([&] {
            comm_socket_v4_idle(client);
            return (packet = comm_socket_v4_client_get_packet_from_server(client)) != nullptr;
        }));
        packets.push_back(packet);
        return packet;
    }

    comm_socket_v4* server = nullptr;
    std::vector<comm_socket_v4*> clients;
    std::vector<comm_socket_v4_packet*> packets;
};
