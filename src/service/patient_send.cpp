#include "service/patient_send.h"

#include "appliance_util.h"
#include "daemon/daemon_counters.h"
#include "config/daemon_settings.h"
#include "service/client_drop.h"
#include "service/send_budget.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace {

constexpr uint64_t writeable_wait_us = 500000;

// The library's answer: above 0 when the packet went out, below 0 when the
// peer is gone (reported here), 0 when it could not take it now.
int try_send(comm_socket_v4_client* client, comm_socket_v4_packet* packet)
{
    int sent = comm_socket_v4_packet_send_to_client(client, packet);
    if (sent < 0) {
        fputs("Failed to send packet to client\n", stderr);
        ++daemon_counters.client_send_failures;
    }
    return sent;
}

bool send_without_limit(comm_socket_v4_client* client, comm_socket_v4_packet* packet)
{
    // No bound on the tries: a local client that stays connected is given
    // whatever time it needs, even though the whole daemon waits with it.
    // The wait's own result is not needed, the next send tells.
    int sent;
    while ((sent = try_send(client, packet)) == 0)
        comm_socket_v4_wait_for_server_to_client_writeable(client,
                                                           monotonic_clock_us() + writeable_wait_us);
    return sent > 0;
}

void give_up(comm_socket_v4_client* client)
{
    unsigned long index = comm_socket_v4_client_ptr2index(client);
    bool disconnected = disconnect_local_client(client);
    if (disconnected)
        mark_client_dropped(client);
    fprintf(stderr, "* client %lu took no packet for %" PRIu64 " ms, %s\n", index,
            daemon_settings.client_send_timeout_ms,
            disconnected ? "disconnecting" : "packet dropped");
}

// A client is first offered the packet even when its time is spent: one
// that has room takes it without any wait.
bool send_within_budget(comm_socket_v4_client* client, comm_socket_v4_packet* packet)
{
    if (client_dropped(client))
        return false;
    int sent;
    while ((sent = try_send(client, packet)) == 0) {
        uint64_t left = send_wait_left_us(client);
        if (left == 0) {
            give_up(client);
            return false;
        }
        uint64_t started = monotonic_clock_us();
        comm_socket_v4_wait_for_server_to_client_writeable(
            client, started + std::min(writeable_wait_us, left));
        charge_send_wait(client, monotonic_clock_us() - started);
    }
    return sent > 0;
}

}  // namespace

bool send_to_client_patiently(comm_socket_v4_client* client, comm_socket_v4_packet* packet)
{
    if (daemon_settings.client_send_timeout_ms == 0)
        return send_without_limit(client, packet);
    return send_within_budget(client, packet);
}
