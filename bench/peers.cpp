#include "peers.h"

#include "daemon.h"
#include "files.h"
#include "stats.h"
#include "tcp.h"

#include "comm_packet_reader.h"
#include "frame.h"
#include "q9mi.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace q9bench {

namespace {

// Whether `bytes` are one well-made frame whose command word is "start".
bool is_start_request(std::string& bytes)
{
    auto* frame = reinterpret_cast<unsigned char*>(&bytes[0]);
    if (!frame_valid(frame, bytes.size()))
        return false;
    comm_socket_v4_packet packet{};
    packet.data = frame;
    return strcmp(packet_command_word(&packet), "start") == 0;
}

}  // namespace

TriggerConnection::TriggerConnection() : TriggerConnection(q9test::trigger_port) {}

TriggerConnection::TriggerConnection(int port) : TcpPeer(port)
{
    if (!connected())
        return;
    int one = 1;
    setsockopt(fd(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    fcntl(fd(), F_SETFL, fcntl(fd(), F_GETFL) | O_NONBLOCK);
}

int TriggerConnection::local_port() const
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    return ntohs(address.sin_port);
}

uint64_t bytes_in_flight_to_daemon(int client_port)
{
    char client_side[32], daemon_side[32];
    snprintf(client_side, sizeof(client_side), ":%04X 0100007F:2694 ", client_port);
    snprintf(daemon_side, sizeof(daemon_side), ":2694 0100007F:%04X ", client_port);
    std::istringstream table(q9test::read_file("/proc/net/tcp"));
    std::string line;
    uint64_t bytes = 0;
    while (std::getline(table, line)) {
        bool client = line.find(client_side) != std::string::npos;
        bool daemon = line.find(daemon_side) != std::string::npos;
        if (!client && !daemon)
            continue;
        // "sl local rem st tx_queue:rx_queue ...": the queues are in hex.
        std::istringstream fields(line);
        std::string sl, local, remote, state, queues;
        fields >> sl >> local >> remote >> state >> queues;
        size_t colon = queues.find(':');
        if (colon == std::string::npos)
            continue;
        bytes += std::stoull(client ? queues.substr(0, colon) : queues.substr(colon + 1), nullptr, 16);
    }
    return bytes;
}

FullIntake::FullIntake(const std::string& payload, size_t count)
    : sent_(new std::atomic<uint64_t>[count])
{
    // A whole number of payloads, so the stream stays payload after payload
    // however the sends split it.
    while (chunk_.size() < 65536)
        chunk_ += payload;
    for (size_t i = 0; i < count; ++i) {
        connections_.push_back(std::make_unique<TriggerConnection>());
        sent_[i] = 0;
    }
    for (size_t i = 0; i < count; ++i)
        threads_.emplace_back([this, i] { run(i); });
}

FullIntake::~FullIntake()
{
    stop_ = true;
    for (auto& thread : threads_)
        thread.join();
    for (auto& connection : connections_) {
        linger reset{1, 0};
        setsockopt(connection->fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
}

bool FullIntake::connected() const
{
    for (const auto& connection : connections_) {
        if (!connection->connected())
            return false;
    }
    return true;
}

std::vector<uint64_t> FullIntake::consumed() const
{
    std::vector<uint64_t> bytes;
    for (size_t i = 0; i < connections_.size(); ++i) {
        uint64_t sent = sent_[i].load();
        uint64_t in_flight = bytes_in_flight_to_daemon(connections_[i]->local_port());
        bytes.push_back(sent > in_flight ? sent - in_flight : 0);
    }
    return bytes;
}

void FullIntake::run(size_t index)
{
    int fd = connections_[index]->fd();
    size_t offset = 0;
    char buffer[65536];
    while (!stop_ && fd >= 0) {
        pollfd ready{fd, POLLIN | POLLOUT, 0};
        if (poll(&ready, 1, 50) <= 0)
            continue;
        if (ready.revents & POLLIN) {
            ssize_t length = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
            if (length == 0)
                return;
            if (length > 0)
                answered_ += static_cast<uint64_t>(length);
        }
        if (ready.revents & POLLOUT) {
            ssize_t length =
                send(fd, chunk_.data() + offset, chunk_.size() - offset, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (length > 0) {
                sent_[index] += static_cast<uint64_t>(length);
                offset = (offset + static_cast<size_t>(length)) % chunk_.size();
            }
        }
        if (ready.revents & (POLLERR | POLLHUP))
            return;
    }
}

MediaItemService::MediaItemService()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, Q9MI_SERVICE_PATH, sizeof(address.sun_path) - 1);
    unlink(address.sun_path);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        return;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd_, 4096) != 0) {
        close(fd_);
        fd_ = -1;
        return;
    }
    thread_ = std::thread([this] { serve(); });
}

MediaItemService::~MediaItemService()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (fd_ >= 0) {
        close(fd_);
        unlink(Q9MI_SERVICE_PATH);
    }
}

// Connections are taken in the order in which the daemon made them (the
// listen queue is first in, first out), one start request each.
void MediaItemService::serve()
{
    while (!stop_) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, 50) <= 0)
            continue;
        for (;;) {
            int peer = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (peer < 0)
                break;
            double at = now_us();
            timeval patience{1, 0};
            setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
            std::string frame;
            char buffer[4096];
            ssize_t length;
            while ((length = recv(peer, buffer, sizeof(buffer), 0)) > 0)
                frame.append(buffer, static_cast<size_t>(length));
            close(peer);
            if (!is_start_request(frame))
                ++malformed_;
            arrivals_.add(at);
        }
    }
}

ListenerGroup::ListenerGroup(size_t count, bool keep) : keep_(keep)
{
    for (size_t i = 0; i < count; ++i) {
        clients_.push_back(std::make_unique<q9test::PacketClient>());
        if (!clients_.back()->connected())
            return;
    }
    // All registrations go out at once and are answered in the same pass.
    for (auto& client : clients_) {
        if (!client->send("register", {{"triggers", "*"}}))
            return;
    }
    for (auto& client : clients_) {
        q9test::Packet reply;
        if (!client->receive(reply) || reply.status != "OK" || reply.result != 0)
            return;
    }
    ready_ = true;
    thread_ = std::thread([this] { serve(); });
}

ListenerGroup::~ListenerGroup()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
}

namespace {

std::string seq_of(const q9test::Packet& packet)
{
    for (const auto& pair : packet.pairs) {
        if (pair.first == "seq")
            return pair.second;
    }
    return "";
}

}  // namespace

void ListenerGroup::serve()
{
    std::vector<pollfd> ready(clients_.size());
    while (!stop_) {
        for (size_t i = 0; i < clients_.size(); ++i)
            ready[i] = {clients_[i]->fd(), POLLIN, 0};
        if (poll(ready.data(), ready.size(), 50) <= 0)
            continue;
        for (size_t i = 0; i < clients_.size(); ++i) {
            if (ready[i].revents == 0)
                continue;
            q9test::Packet packet;
            while (clients_[i]->receive(packet, std::chrono::milliseconds(0))) {
                double at = now_us();
                if (packet.command == "notify") {
                    ++received_;
                    if (keep_)
                        notifications_.add({at, i, seq_of(packet)});
                }
            }
        }
    }
}

bool service_request(const std::string& command, const q9test::Pairs& pairs)
{
    q9test::PacketClient client;
    q9test::Packet reply;
    return client.request(reply, command, pairs) && reply.status == "OK" && reply.result == 0;
}

namespace {

// Writes all of `bytes` to the non-blocking `fd`, waiting for room.
bool write_all(int fd, const std::string& bytes)
{
    size_t written = 0;
    while (written < bytes.size()) {
        ssize_t length = send(fd, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (length > 0) {
            written += static_cast<size_t>(length);
            continue;
        }
        if (length < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        pollfd room{fd, POLLOUT, 0};
        if (poll(&room, 1, 5000) != 1)
            return false;
    }
    return true;
}

}  // namespace

// A batch goes out in one write, so that the daemon finds it whole when it
// wakes; the replies are read by the client's library.  A receive() with no
// time to wait does the client's pending work once and takes one reply.
size_t batched_requests(q9test::PacketClient& client, const std::string& command, const q9test::Pairs& pairs,
                        size_t count, size_t batch, const std::function<void(const q9test::Packet&)>& on_reply)
{
    const std::string frame =
        q9test::request_frame(COMM_SOCKET_V4_MODE_BIT | COMM_SOCKET_V4_REPLY_WANTED, command, pairs);
    size_t sent = 0, replied = 0;
    double last_reply = now_us();
    while (replied < count && client.connected() && now_us() - last_reply < 5e6) {
        if (sent == replied) {
            size_t frames = std::min(count - sent, batch);
            if (!write_all(client.fd(), repeated(frame, static_cast<int>(frames))))
                return replied;
            sent += frames;
        }
        q9test::Packet reply;
        if (client.receive(reply, std::chrono::milliseconds(0))) {
            on_reply(reply);
            ++replied;
            last_reply = now_us();
            continue;
        }
        pollfd ready{client.fd(), POLLIN, 0};
        poll(&ready, 1, 100);
    }
    return replied;
}

std::string repeated(const std::string& text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i)
        all += text;
    return all;
}

size_t send_and_collect(TriggerConnection& connection, const std::string& bytes, size_t reply_bytes,
                        double limit_us, const std::function<void(size_t)>& on_reply)
{
    size_t sent = 0, received = 0;
    double deadline = now_us() + limit_us;
    while ((sent < bytes.size() || received < reply_bytes) && now_us() < deadline &&
           connection.connected()) {
        short events = sent < bytes.size() ? POLLIN | POLLOUT : POLLIN;
        pollfd ready{connection.fd(), events, 0};
        if (poll(&ready, 1, 100) <= 0)
            continue;
        if (ready.revents & POLLOUT) {
            ssize_t length = send(connection.fd(), bytes.data() + sent, bytes.size() - sent,
                                  MSG_DONTWAIT | MSG_NOSIGNAL);
            if (length > 0)
                sent += static_cast<size_t>(length);
        }
        if (ready.revents & POLLIN) {
            char buffer[65536];
            ssize_t length = recv(connection.fd(), buffer, sizeof(buffer), MSG_DONTWAIT);
            if (length <= 0)
                return received;
            received += static_cast<size_t>(length);
            if (on_reply)
                on_reply(received);
        }
    }
    return received;
}

std::unique_ptr<q9test::ToolProcess> start_simulator(const std::vector<std::string>& args)
{
    return std::make_unique<q9test::ToolProcess>(Q9_SIM_BINARY, args);
}

}  // namespace q9bench
