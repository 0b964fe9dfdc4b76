#include "ctl/service_client.h"

#include "appliance_util.h"
#include "comm_packet_reader.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// The library offers no way to be woken by a packet, so waits look again at
// this interval; it also lets the library flush output it kept back.
const uint64_t kPollSliceUs = 100000;

timespec slice_until(uint64_t deadline)
{
    uint64_t now = monotonic_clock_us();
    uint64_t wait = deadline > now ? std::min(deadline - now, kPollSliceUs) : 0;
    return timespec{static_cast<time_t>(wait / 1000000), static_cast<long>(wait % 1000000) * 1000};
}

}  // namespace

void PacketRelease::operator()(comm_socket_v4_packet* packet) const
{
    comm_socket_v4_packet_release(packet);
}

ServiceConnection::~ServiceConnection()
{
    if (!sock_)
        return;
    comm_socket_v4_close(sock_);
    sock_ = comm_socket_v4_destroy(sock_);
}

int ServiceConnection::open(const char* path, uint64_t deadline, std::string* error)
{
    sock_ = comm_socket_v4_create();
    if (!sock_) {
        *error = "cannot create a packet socket";
        return CTL_EXIT_FAILED;
    }
    const std::string not_running = std::string("the daemon is not running (nothing answers at ") +
                                    path + ")";
    uint64_t now = monotonic_clock_us();
    comm_socket_v4_set_connect_timeout(sock_, deadline > now ? deadline - now : 0);
    if (comm_socket_v4_connect_to(sock_, path) < 0) {
        *error = not_running;
        return CTL_EXIT_NOT_RUNNING;
    }
    while (!(sock_->established & 1)) {
        if (sock_->fd < 0 || comm_socket_v4_idle(sock_) < 0) {
            *error = not_running;
            return CTL_EXIT_NOT_RUNNING;
        }
        if (sock_->established & 1)
            break;
        if (monotonic_clock_us() >= deadline) {
            *error = std::string("the daemon did not accept the connection at ") + path + " in time";
            return CTL_EXIT_FAILED;
        }
        pollfd pfd = {sock_->fd, POLLOUT, 0};
        timespec slice = slice_until(deadline);
        ppoll(&pfd, 1, &slice, nullptr);
    }
    return CTL_EXIT_OK;
}

bool ServiceConnection::send_request(const char* command, const NameValueList& pairs,
                                     uint64_t reference, std::string* error)
{
    PacketPtr packet(comm_socket_v4_packet_create());
    if (!packet) {
        *error = "cannot create a packet";
        return false;
    }
    // The daemon executes only requests that ask for a reply.
    packet->flags |= COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;
    packet->reference = reference;
    comm_socket_v4_packet_begin_writing(packet.get(), 0, command, "");
    comm_socket_v4_packet_write_argv_end(packet.get());
    for (const auto& pair : pairs)
        comm_socket_v4_packet_write_nv_pair(packet.get(), pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet.get());
    if (comm_socket_v4_packet_send_to_server(sock_, packet.get()) <= 0) {
        *error = std::string("cannot send the request \"") + command + "\"";
        return false;
    }
    return true;
}

WaitOutcome ServiceConnection::wait_for_packet(uint64_t deadline, const sigset_t* sigmask,
                                               PacketPtr* packet)
{
    for (;;) {
        int idle = sock_->fd >= 0 ? comm_socket_v4_idle(sock_) : -1;
        // Packets that arrived before the daemon hung up are still delivered.
        packet->reset(comm_socket_v4_client_get_packet_from_server(sock_));
        if (*packet)
            return WaitOutcome::Packet;
        if (idle < 0 || sock_->fd < 0)
            return WaitOutcome::Closed;
        if (monotonic_clock_us() >= deadline)
            return WaitOutcome::Timeout;
        pollfd pfd = {sock_->fd, POLLIN, 0};
        timespec slice = slice_until(deadline);
        if (ppoll(&pfd, 1, &slice, sigmask) < 0 && errno == EINTR && sigmask)
            return WaitOutcome::Interrupted;
    }
}

int request_reply(ServiceConnection& connection, const char* command, const NameValueList& pairs,
                  PacketPtr* reply, std::string* error)
{
    const uint64_t reference = static_cast<uint64_t>(getpid());
    if (!connection.send_request(command, pairs, reference, error))
        return CTL_EXIT_FAILED;
    const uint64_t deadline = monotonic_clock_us() + kServiceTimeoutUs;
    for (;;) {
        switch (connection.wait_for_packet(deadline, nullptr, reply)) {
        case WaitOutcome::Packet:
            if (strcmp(packet_command_word(reply->get()), command) == 0 &&
                (*reply)->reference == reference)
                return CTL_EXIT_OK;
            break;
        case WaitOutcome::Timeout:
            *error = std::string("no reply to \"") + command + "\" within " +
                     std::to_string(kServiceTimeoutUs / 1000000) + " s";
            return CTL_EXIT_FAILED;
        case WaitOutcome::Closed:
            *error = std::string("the daemon closed the connection before replying to \"") +
                     command + "\"";
            return CTL_EXIT_FAILED;
        case WaitOutcome::Interrupted:
            break;
        }
    }
}
