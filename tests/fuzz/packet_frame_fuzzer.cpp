// Bytes from a local peer of the packet-socket library.  Each input is
// checked as one frame (and, when it passes, every field is read back the
// way the daemon reads a request), then written as a stream to a live
// server endpoint, whose idle step must take in well-made frames and drop
// the peer on anything else, never reading outside what arrived.
#include "comm_packet_reader.h"
#include "comm_socket_v4.h"
#include "frame.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

size_t read_every_field(comm_socket_v4_packet* packet)
{
    size_t total = strlen(packet_command_word(packet)) + strlen(packet_status_word(packet));
    for (size_t i = 0; i < packet_argument_count(packet); ++i)
        total += strlen(packet_argument(packet, i));
    for (size_t i = 0; i < packet_nv_pair_count(packet); ++i)
        total += strlen(packet_nv_name(packet, i)) + strlen(packet_nv_value(packet, i));
    return total;
}

void check_as_one_frame(const uint8_t* data, size_t size)
{
    if (!frame_valid(data, size))
        return;
    std::vector<unsigned char> copy(data, data + size);
    comm_socket_v4_packet packet{};
    packet.data = copy.data();
    read_every_field(&packet);
}

struct Server {
    std::string path = "/tmp/q9-packet-frame-fuzzer-" + std::to_string(getpid()) + ".sock";
    comm_socket_v4* endpoint = comm_socket_v4_create();
    int peer = -1;

    Server()
    {
        if (comm_socket_v4_create_server(endpoint, path.c_str()) != 0)
            abort();
    }

    void connect_peer()
    {
        peer = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path.c_str());
        if (connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
            abort();
    }

    // One idle step, then everything it queued or reported is taken out.
    void drain()
    {
        comm_socket_v4_idle(endpoint);
        while (comm_socket_v4_accept_connection(endpoint) != nullptr) {
        }
        while (comm_socket_v4_client* gone = comm_socket_v4_get_disconnected_client(endpoint)) {
            comm_socket_v4_free_client(gone);
            close(peer);
            peer = -1;
        }
        comm_socket_v4_client* sender = nullptr;
        while (comm_socket_v4_packet* request = comm_socket_v4_server_get_packet(endpoint, &sender)) {
            read_every_field(request);
            comm_socket_v4_packet_release(request);
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    check_as_one_frame(data, size);

    static Server server;
    if (server.peer < 0)
        server.connect_peer();
    if (size > 0 && send(server.peer, data, size, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        close(server.peer);
        server.peer = -1;
    }
    server.drain();
    return 0;
}
