#include "service/client_notification.h"

#include "comm_socket_v4.h"
#include "daemon/daemon_counters.h"
#include "daemon/process_state.h"
#include "service/patient_send.h"

namespace {

/// The library's peer at `index`, or null when the endpoint has none there.
comm_socket_v4_client* peer_at(unsigned long index)
{
    if (index >= server_socket->clients.size() || index > server_socket->max_client_index)
        return nullptr;
    return server_socket->clients[index];
}

void write_notification(comm_socket_v4_packet* packet, const TCPTriggerClient& message)
{
    packet->flags &= ~COMM_SOCKET_V4_REPLY_WANTED;
    packet->flags |= COMM_SOCKET_V4_MODE_BIT;
    packet->reference = 0;
    packet->result = 0;
    comm_socket_v4_packet_begin_writing(packet, 0, "notify", "OK");
    comm_socket_v4_packet_write_argv(packet, message.command.c_str());
    comm_socket_v4_packet_write_argv_end(packet);
    for (const auto& pair : message.nv_pairs)
        comm_socket_v4_packet_write_nv_pair(packet, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet);
}

}  // namespace

// A client that fails is left in place: only the library's report of its
// disconnection removes its record.
void notify_clients(const TCPTriggerClient& message)
{
    for (const auto& record : server_socket_clients)
        notify_client(record.first, record.second, message);
}

void notify_client(unsigned long index, const CommSocketClient& client,
                   const TCPTriggerClient& message)
{
    if (!client.all_triggers || server_socket == nullptr)
        return;
    comm_socket_v4_client* peer = peer_at(index);
    if (peer == nullptr)
        return;
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    if (packet == nullptr)
        return;
    write_notification(packet, message);
    if (send_to_client_patiently(peer, packet))
        ++daemon_counters.notifies_sent;
    comm_socket_v4_packet_release(packet);
}
