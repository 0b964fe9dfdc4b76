#include "packet_peers.h"

#include "tool_process.h"

#include "appliance_util.h"
#include "comm_packet_reader.h"

#include <unistd.h>

namespace q9tools {

SeenPacket copy_packet(const comm_socket_v4_packet* packet)
{
    SeenPacket seen;
    seen.command = packet_command_word(packet);
    seen.status = packet_status_word(packet);
    for (size_t i = 0; i < packet_argument_count(packet); ++i)
        seen.arguments.push_back(packet_argument(packet, i));
    for (size_t i = 0; i < packet_nv_pair_count(packet); ++i)
        seen.pairs.emplace_back(packet_nv_name(packet, i), packet_nv_value(packet, i));
    seen.flags = packet->flags;
    seen.reference = packet->reference;
    seen.result = packet->result;
    return seen;
}

void write_packet(comm_socket_v4_packet* packet, const std::string& command,
                  const std::string& status, const std::vector<std::string>& arguments,
                  const Pairs& pairs)
{
    comm_socket_v4_packet_begin_writing(packet, 0, command.c_str(), status.c_str());
    for (const std::string& argument : arguments)
        comm_socket_v4_packet_write_argv(packet, argument.c_str());
    comm_socket_v4_packet_write_argv_end(packet);
    for (const auto& pair : pairs)
        comm_socket_v4_packet_write_nv_pair(packet, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet);
}

namespace {

bool send_to_client(comm_socket_v4_client* client, comm_socket_v4_packet* packet)
{
    for (int tries = 0; tries < 20; ++tries) {
        int sent = comm_socket_v4_packet_send_to_client(client, packet);
        if (sent != 0)
            return sent > 0;
        comm_socket_v4_wait_for_server_to_client_writeable(client, monotonic_clock_us() + 500000);
    }
    return false;
}

}  // namespace

FakeService::FakeService(const std::string& path)
{
    sock_ = comm_socket_v4_create();
    if (sock_ && comm_socket_v4_create_server(sock_, path.c_str()) != 0)
        sock_ = comm_socket_v4_destroy(sock_);
}

FakeService::~FakeService()
{
    stop();
}

void FakeService::stop()
{
    if (sock_)
        sock_ = comm_socket_v4_destroy(sock_);
    last_client_ = nullptr;
}

bool FakeService::serve_until(const std::function<bool()>& condition,
                              std::chrono::milliseconds limit)
{
    return wait_until(
        [&] {
            serve_once();
            return condition();
        },
        limit);
}

void FakeService::serve_once()
{
    if (!sock_ || comm_socket_v4_idle(sock_) != 0)
        return;
    while (comm_socket_v4_accept_connection(sock_)) {
    }
    while (comm_socket_v4_client* gone = comm_socket_v4_get_disconnected_client(sock_)) {
        if (gone == last_client_)
            last_client_ = nullptr;
        comm_socket_v4_free_client(gone);
    }
    comm_socket_v4_client* client = nullptr;
    while (comm_socket_v4_packet* request = comm_socket_v4_server_get_packet(sock_, &client)) {
        last_client_ = client;
        requests.push_back(copy_packet(request));
        if (answer && (request->flags & COMM_SOCKET_V4_REPLY_WANTED)) {
            comm_socket_v4_packet* reply = comm_socket_v4_packet_create();
            reply->flags = request->flags & COMM_SOCKET_V4_MODE_BIT;
            reply->reference = request->reference;
            answer(requests.back(), reply);
            send_to_client(client, reply);
            comm_socket_v4_packet_release(reply);
        }
        comm_socket_v4_packet_release(request);
        client = nullptr;
    }
}

bool FakeService::notify(const std::string& command, const Pairs& pairs)
{
    if (!last_client_)
        return false;
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packet->flags = COMM_SOCKET_V4_MODE_BIT;
    write_packet(packet, "notify", "OK", {command}, pairs);
    bool sent = send_to_client(last_client_, packet);
    comm_socket_v4_packet_release(packet);
    return sent;
}

PacketClient::PacketClient(const std::string& path)
{
    sock_ = comm_socket_v4_create();
    if (!sock_)
        return;
    if (comm_socket_v4_connect_to(sock_, path.c_str()) == 0 &&
        wait_until([this] { return sock_->fd >= 0 && comm_socket_v4_idle(sock_) >= 0 &&
                                   (sock_->established & 1); }))
        return;
    comm_socket_v4_close(sock_);
    sock_ = comm_socket_v4_destroy(sock_);
}

PacketClient::~PacketClient()
{
    if (!sock_)
        return;
    comm_socket_v4_close(sock_);
    sock_ = comm_socket_v4_destroy(sock_);
}

bool PacketClient::connected() const
{
    return sock_ && sock_->fd >= 0;
}

bool PacketClient::send(uint8_t flags, uint64_t reference, const std::string& command,
                        const std::vector<std::string>& arguments, const Pairs& pairs)
{
    if (!connected())
        return false;
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packet->flags = flags;
    packet->reference = reference;
    write_packet(packet, command, "", arguments, pairs);
    bool sent = comm_socket_v4_packet_send_to_server(sock_, packet) > 0;
    comm_socket_v4_packet_release(packet);
    return sent;
}

bool PacketClient::receive(SeenPacket* packet, std::chrono::milliseconds limit)
{
    return wait_until(
        [&] {
            if (!connected() || comm_socket_v4_idle(sock_) < 0)
                return false;
            comm_socket_v4_packet* received = comm_socket_v4_client_get_packet_from_server(sock_);
            if (!received)
                return false;
            *packet = copy_packet(received);
            comm_socket_v4_packet_release(received);
            return true;
        },
        limit);
}

}  // namespace q9tools
