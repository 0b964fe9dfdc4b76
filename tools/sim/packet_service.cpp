#include "sim/packet_service.h"

#include "appliance_util.h"
#include "comm_packet_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace {

// A peer that takes no data for this long loses its reply: the simulator
// must not hang on one peer.
const int kReplyWaits = 10;
const uint64_t kReplyWaitUs = 500000;

void send_with_patience(comm_socket_v4_client* client, comm_socket_v4_packet* reply)
{
    for (int waits = 0; waits <= kReplyWaits; ++waits) {
        int sent = comm_socket_v4_packet_send_to_client(client, reply);
        if (sent != 0) {
            if (sent < 0)
                fprintf(stderr, "q9_appliance_sim: failed to send a reply\n");
            return;
        }
        comm_socket_v4_wait_for_server_to_client_writeable(client,
                                                           monotonic_clock_us() + kReplyWaitUs);
    }
    fprintf(stderr, "q9_appliance_sim: a peer takes no data, reply dropped\n");
}

}  // namespace

void write_ok_reply(const comm_socket_v4_packet* request, comm_socket_v4_packet* reply)
{
    reply->flags &= static_cast<uint8_t>(~(COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT));
    reply->flags |= request->flags & COMM_SOCKET_V4_MODE_BIT;
    reply->reference = request->reference;
    reply->result = 0;
    comm_socket_v4_packet_begin_writing(reply, 0, packet_command_word(request), "OK");
    comm_socket_v4_packet_write_argv_end(reply);
    comm_socket_v4_packet_write_end(reply);
}

PacketService::PacketService(std::string path, RequestLogger log)
    : path_(std::move(path)), log_(std::move(log))
{
}

PacketService::~PacketService()
{
    if (sock_)
        sock_ = comm_socket_v4_destroy(sock_);
    struct stat st;
    if (listening_ && lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode))
        unlink(path_.c_str());
}

bool PacketService::open(std::string* error)
{
    sock_ = comm_socket_v4_create();
    if (!sock_ || comm_socket_v4_create_server(sock_, path_.c_str()) != 0) {
        *error = "cannot serve " + path_ +
                 " (another server answers there, or the path is not usable)";
        return false;
    }
    listening_ = true;
    return true;
}

int PacketService::listen_fd() const
{
    return sock_ ? sock_->fd : -1;
}

bool PacketService::serve()
{
    if (!sock_ || sock_->fd < 0 || comm_socket_v4_idle(sock_) != 0)
        return false;
    while (comm_socket_v4_accept_connection(sock_)) {
    }
    // Requests go first: the media-item library hangs up right after its
    // request, and freeing a peer drops what it sent.
    comm_socket_v4_client* client = nullptr;
    while (comm_socket_v4_packet* request = comm_socket_v4_server_get_packet(sock_, &client)) {
        log_(request);
        if (client && (request->flags & COMM_SOCKET_V4_REPLY_WANTED))
            answer(client, request);
        comm_socket_v4_packet_release(request);
        client = nullptr;
    }
    while (comm_socket_v4_client* gone = comm_socket_v4_get_disconnected_client(sock_))
        comm_socket_v4_free_client(gone);
    return true;
}

void PacketService::answer(comm_socket_v4_client* client, const comm_socket_v4_packet* request)
{
    comm_socket_v4_packet* reply = comm_socket_v4_packet_create();
    if (!reply)
        return;
    write_ok_reply(request, reply);
    send_with_patience(client, reply);
    comm_socket_v4_packet_release(reply);
}
