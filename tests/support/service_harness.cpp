#include "service_harness.h"

#include "library_calls.h"

#include "comm_packet_reader.h"
#include "daemon/process_state.h"
#include "q9mi.h"
#include "service/command_server.h"

#include <chrono>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds patience{10000};

comm_socket_v4_packet* build_packet(const Request& request)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packet->flags = request.flags;
    packet->reference = request.reference;
    q9test::write_packet(packet, request.command, "", request.arguments, request.pairs);
    return packet;
}

}  // namespace

bool serve_until(const std::function<bool()>& done)
{
    return q9test::wait_until(
        [&] {
            handle_server_socket();
            return done();
        },
        patience);
}

LocalClient::LocalClient() : endpoint_(comm_socket_v4_create())
{
    auto before = server_socket_clients;
    EXPECT_EQ(comm_socket_v4_connect_to(endpoint_, server_socket_path), 0);
    bool accepted = serve_until([&] {
        comm_socket_v4_idle(endpoint_);
        for (const auto& record : server_socket_clients)
            if (before.count(record.first) == 0)
                index_ = record.first;
        return index_ != ~0ul && (endpoint_->established & 1) != 0;
    });
    EXPECT_TRUE(accepted) << "the command server never took the connection";
}

LocalClient::~LocalClient()
{
    hang_up();
}

void LocalClient::send(const Request& request)
{
    comm_socket_v4_packet* packet = build_packet(request);
    EXPECT_GT(comm_socket_v4_packet_send_to_server(endpoint_, packet), 0);
    comm_socket_v4_packet_release(packet);
}

std::optional<q9test::Packet> LocalClient::receive()
{
    comm_socket_v4_packet* packet = nullptr;
    q9test::wait_until(
        [&] {
            comm_socket_v4_idle(endpoint_);
            handle_server_socket();
            comm_socket_v4_idle(endpoint_);
            packet = comm_socket_v4_client_get_packet_from_server(endpoint_);
            return packet != nullptr;
        },
        patience);
    if (packet == nullptr)
        return std::nullopt;
    return take_packet(packet);
}

std::optional<q9test::Packet> LocalClient::ask(const Request& request)
{
    send(request);
    return receive();
}

void LocalClient::hang_up()
{
    if (endpoint_ == nullptr)
        return;
    comm_socket_v4_close(endpoint_);
    endpoint_ = comm_socket_v4_destroy(endpoint_);
}

void LocalClient::disconnect()
{
    hang_up();
    EXPECT_TRUE(serve_until([&] { return server_socket_clients.count(index_) == 0; }));
}

void ServiceTest::SetUp()
{
    server_socket_clients.clear();
    media_persistence.clear();
    reset_library_calls();
    server_socket = comm_socket_v4_create();
    ASSERT_NE(server_socket, nullptr);
    ASSERT_EQ(comm_socket_v4_create_server(server_socket, server_socket_path), 0);
}

void ServiceTest::TearDown()
{
    server_socket = comm_socket_v4_destroy(server_socket);
    server_socket_clients.clear();
    media_persistence.clear();
    reset_library_calls();
}

MediaItemService::MediaItemService() : endpoint_(comm_socket_v4_create())
{
    EXPECT_EQ(comm_socket_v4_create_server(endpoint_, Q9MI_SERVICE_PATH), 0);
}

MediaItemService::~MediaItemService()
{
    endpoint_ = comm_socket_v4_destroy(endpoint_);
}

// Requests are taken before hang-ups are handled: a caller that wrote its
// request and left at once still has it counted.
void MediaItemService::collect()
{
    comm_socket_v4_idle(endpoint_);
    while (comm_socket_v4_accept_connection(endpoint_) != nullptr) {
    }
    comm_socket_v4_client* sender = nullptr;
    while (comm_socket_v4_packet* packet = comm_socket_v4_server_get_packet(endpoint_, &sender)) {
        q9test::Packet request = take_packet(packet);
        std::string line = request.command;
        for (const auto& argument : request.arguments)
            line += " " + argument;
        requests_.push_back(line);
    }
    while (comm_socket_v4_client* gone = comm_socket_v4_get_disconnected_client(endpoint_))
        comm_socket_v4_free_client(gone);
}

std::vector<std::string> MediaItemService::requests(size_t count)
{
    q9test::wait_until(
        [&] {
            collect();
            return requests_.size() >= count;
        },
        patience);
    return requests_;
}

int fill_peer(unsigned long index)
{
    comm_socket_v4_packet* filler = build_packet({"filler", {{"bulk", std::string(65536, 'f')}}, {}, 0, 0});
    int taken = 0;
    while (comm_socket_v4_packet_send_to_client(server_socket->clients.at(index), filler) > 0)
        ++taken;
    comm_socket_v4_packet_release(filler);
    return taken;
}

int drain(LocalClient& client)
{
    int dropped = 0;
    pollfd readable{client.endpoint()->fd, POLLIN, 0};
    do {
        comm_socket_v4_idle(client.endpoint());
        while (comm_socket_v4_packet* packet = comm_socket_v4_client_get_packet_from_server(client.endpoint())) {
            comm_socket_v4_packet_release(packet);
            ++dropped;
        }
    } while (poll(&readable, 1, 100) > 0);
    return dropped;
}
