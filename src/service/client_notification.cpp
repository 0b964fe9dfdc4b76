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

/// The peer that `client` at `index` names when it wants every trigger, or null.
comm_socket_v4_client* listener_peer(unsigned long index, const CommSocketClient& client)
{
    if (!client.all_triggers || server_socket == nullptr)
        return nullptr;
    return peer_at(index);
}

/// The finished "notify" packet of `message`, or null when none can be made.
comm_socket_v4_packet* notification(const TCPTriggerClient& message)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    if (packet == nullptr)
        return nullptr;
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
    return packet;
}

void send_notification(comm_socket_v4_client* peer, comm_socket_v4_packet* packet)
{
    if (send_to_client_patiently(peer, packet))
        ++daemon_counters.notifies_sent;
}

}  // namespace

// Every listener gets the same bytes, so the packet is written once, when
// the first listener turns up, and sent to each: with many listeners the
// sends are all that is left of the work.  A client that fails is left in
// place: only the library's report of its disconnection removes its record.
void notify_clients(const TCPTriggerClient& message)
{
    comm_socket_v4_packet* packet = nullptr;
    for (const auto& record : server_socket_clients) {
        comm_socket_v4_client* peer = listener_peer(record.first, record.second);
        if (peer == nullptr)
            continue;
        if (packet == nullptr)
            packet = notification(message);
        if (packet == nullptr)
            return;
        send_notification(peer, packet);
    }
    if (packet != nullptr)
        comm_socket_v4_packet_release(packet);
}

void notify_client(unsigned long index, const CommSocketClient& client,
                   const TCPTriggerClient& message)
{
    comm_socket_v4_client* peer = listener_peer(index, client);
    if (peer == nullptr)
        return;
    comm_socket_v4_packet* packet = notification(message);
    if (packet == nullptr)
        return;
    send_notification(peer, packet);
    comm_socket_v4_packet_release(packet);
}
