#include "packet_peers.h"

#include "appliance_util.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace q9test {

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

int connect_unix(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

PacketClient::PacketClient(const std::string& path)
{
    wait_until([&] {
        sock_ = comm_socket_v4_create();
        if (comm_socket_v4_connect_to(sock_, path.c_str()) == 0 &&
            wait_until([&] { return comm_socket_v4_idle(sock_) == 0 && (sock_->established & 1); },
                       std::chrono::milliseconds(1000)))
            return true;
        comm_socket_v4_close(sock_);
        sock_ = comm_socket_v4_destroy(sock_);
        return false;
    });
}

PacketClient::~PacketClient()
{
    if (sock_ != nullptr) {
        comm_socket_v4_close(sock_);
        sock_ = comm_socket_v4_destroy(sock_);
    }
}

bool PacketClient::connected() const
{
    return sock_ != nullptr && sock_->fd >= 0;
}

int PacketClient::fd() const
{
    return connected() ? sock_->fd : -1;
}

bool PacketClient::send(const std::string& command, const Pairs& pairs, bool reply_wanted,
                        uint64_t reference)
{
    uint8_t flags = COMM_SOCKET_V4_MODE_BIT | (reply_wanted ? COMM_SOCKET_V4_REPLY_WANTED : 0);
    return send_packet(flags, reference, command, {}, pairs);
}

bool PacketClient::send_packet(uint8_t flags, uint64_t reference, const std::string& command,
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
    // Push the frame out now rather than at the next receive.
    comm_socket_v4_idle(sock_);
    return sent;
}

bool PacketClient::receive(Packet& packet, std::chrono::milliseconds limit)
{
    comm_socket_v4_packet* received = nullptr;
    wait_until(
        [&] {
            if (!connected() || comm_socket_v4_idle(sock_) < 0)
                return true;
            received = comm_socket_v4_client_get_packet_from_server(sock_);
            return received != nullptr;
        },
        limit);
    if (received == nullptr)
        return false;
    packet = take_packet(received);
    return true;
}

bool PacketClient::request(Packet& reply, const std::string& command, const Pairs& pairs,
                           uint64_t reference)
{
    return send(command, pairs, true, reference) && receive(reply);
}

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

bool FakeService::serve_until(const std::function<bool()>& condition, std::chrono::milliseconds limit)
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

Packet ask(PacketClient& client, const std::string& command, const Pairs& pairs, uint64_t reference)
{
    Packet reply;
    client.request(reply, command, pairs, reference);
    return reply;
}

std::string reply_summary(const Packet& reply)
{
    return reply.command + " / " + reply.status + " / " + std::to_string(reply.result);
}

std::string status_value(PacketClient& client, const std::string& name)
{
    for (const auto& pair : ask(client, "status").pairs)
        if (pair.first == name)
            return pair.second;
    return "(absent)";
}

std::string status_value(const std::string& name)
{
    PacketClient client;
    return status_value(client, name);
}

}  // namespace q9test
