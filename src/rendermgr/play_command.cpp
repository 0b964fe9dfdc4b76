#include "rendermgr/play_command.h"

#include <cstdio>

namespace {

// One "set" request.  Its reply is not awaited: the polls between the
// settings and the main loop's polls discard it.
void send_setting(RenderManagerConnection* connection, const char* name, const char* value)
{
    if (connection->sock == nullptr)
        return;
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    if (packet == nullptr)
        return;
    packet->flags |= COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;
    comm_socket_v4_packet_begin_writing(packet, 0, "set", "");
    comm_socket_v4_packet_write_argv(packet, name);
    comm_socket_v4_packet_write_argv(packet, value);
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_end(packet);
    // Written before the send so that the attempt shows even when it fails.
    fprintf(stderr, "Channel %d: setting '%s' = %s\n", connection->channel, name, value);
    if (comm_socket_v4_packet_send_to_server(connection->sock, packet) <= 0)
        fprintf(stderr, "Channel %d: Failed to sent packet\n", connection->channel);
    comm_socket_v4_packet_release(packet);
}

}  // namespace

void play_now(RenderManagerConnection* connection, const char* item)
{
    send_setting(connection, "alt loop", "0");
    connection->idle();
    send_setting(connection, "+alt-now", item);
    connection->idle();
}
