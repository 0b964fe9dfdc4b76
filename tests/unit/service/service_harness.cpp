#include "service_harness.h"

#include "library_calls.h"

#include "comm_packet_reader.h"
#include "daemon/process_state.h"
#include "q9mi.h"
#include "service/command_server.h"

#include <chrono>
#include <dirent.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr auto patience = std::chrono::seconds(10);

bool before_deadline(std::chrono::steady_clock::time_point start)
{
    return std::chrono::steady_clock::now() - start < patience;
}

comm_socket_v4_packet* build_packet(const Request& request)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packet->flags = request.flags;
    packet->reference = request.reference;
    comm_socket_v4_packet_begin_writing(packet, 0, request.command.c_str(), "");
    for (const auto& argument : request.arguments)
        comm_socket_v4_packet_write_argv(packet, argument.c_str());
    comm_socket_v4_packet_write_argv_end(packet);
    for (const auto& pair : request.pairs)
        comm_socket_v4_packet_write_nv_pair(packet, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet);
    return packet;
}

}  // namespace

ReceivedPacket take_packet(comm_socket_v4_packet* packet)
{
    ReceivedPacket seen;
    seen.flags = packet->flags;
    seen.reference = packet->reference;
    seen.result = packet->result;
    seen.command = packet_command_word(packet);
    seen.status = packet_status_word(packet);
    for (size_t i = 0; i < packet_argument_count(packet); ++i)
        seen.arguments.emplace_back(packet_argument(packet, i));
    for (size_t i = 0; i < packet_nv_pair_count(packet); ++i)
        seen.pairs.emplace_back(packet_nv_name(packet, i), packet_nv_value(packet, i));
    comm_socket_v4_packet_release(packet);
    return seen;
}

bool serve_until(const std::function<bool()>& done)
{
    auto start = std::chrono::steady_clock::now();
    while (before_deadline(start)) {
        handle_server_socket();
        if (done())
            return true;
        usleep(200);
    }
    return false;
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

std::optional<ReceivedPacket> LocalClient::receive()
{
    auto start = std::chrono::steady_clock::now();
    while (before_deadline(start)) {
        comm_socket_v4_idle(endpoint_);
        handle_server_socket();
        comm_socket_v4_idle(endpoint_);
        if (comm_socket_v4_packet* packet = comm_socket_v4_client_get_packet_from_server(endpoint_))
            return take_packet(packet);
        usleep(200);
    }
    return std::nullopt;
}

std::optional<ReceivedPacket> LocalClient::ask(const Request& request)
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
        ReceivedPacket request = take_packet(packet);
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
    auto start = std::chrono::steady_clock::now();
    while (requests_.size() < count && before_deadline(start)) {
        collect();
        usleep(200);
    }
    return requests_;
}

size_t open_descriptor_count()
{
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(dir);
    return count - 1;  // the directory's own descriptor
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
