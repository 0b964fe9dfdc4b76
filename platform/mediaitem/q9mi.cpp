#include "q9mi.h"

#include "frame.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Hands the whole frame to the service's socket without waiting: the
// connect and the write either succeed at once or the request is dropped.
bool deliver_at_once(const unsigned char* frame)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, Q9MI_SERVICE_PATH, sizeof(address.sun_path) - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    size_t length = frame_length(frame);
    bool delivered =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        send(fd, frame, length, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(length);
    close(fd);
    return delivered;
}

}  // namespace

int q9mi_start_item(const char* name)
{
    if (name == nullptr)
        return -1;
    FrameWriter writer;
    writer.begin(0, "start", "");
    writer.add_argument(name);
    unsigned char* frame = writer.finish();
    if (frame == nullptr)
        return -1;
    frame_stamp(frame, COMM_SOCKET_V4_MODE_BIT, 0, 0);
    bool delivered = deliver_at_once(frame);
    std::free(frame);
    return delivered ? 0 : -1;
}

void q9mi_default_unknown_command_error_response(comm_socket_v4_packet* request,
                                                 comm_socket_v4_packet* reply)
{
    if (request == nullptr || reply == nullptr)
        return;
    // A copy, since writing the reply may replace the request's frame when
    // both are the same packet.
    std::string command;
    if (request->data != nullptr)
        command = reinterpret_cast<const char*>(request->data) +
                  frame_load<uint32_t>(request->data + FRAME_COMMAND_AT);
    comm_socket_v4_packet_begin_writing(reply, 0, command.c_str(), "Unknown command");
    comm_socket_v4_packet_write_argv_end(reply);
    comm_socket_v4_packet_write_end(reply);
    reply->result = 1;
}
