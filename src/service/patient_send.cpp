#include "service/patient_send.h"

#include "appliance_util.h"
#include "daemon/daemon_counters.h"

#include <cstdio>

namespace {

constexpr uint64_t writeable_wait_us = 500000;

}  // namespace

bool send_to_client_patiently(comm_socket_v4_client* client, comm_socket_v4_packet* packet)
{
    for (;;) {
        int sent = comm_socket_v4_packet_send_to_client(client, packet);
        if (sent > 0)
            return true;
        if (sent < 0) {
            fputs("Failed to send packet to client\n", stderr);
            ++daemon_counters.client_send_failures;
            return false;
        }
        // No bound on the tries: a local client that stays connected is
        // given whatever time it needs, even though the whole daemon waits
        // with it.  The wait's own result is not needed, the next send
        // tells.
        comm_socket_v4_wait_for_server_to_client_writeable(client,
                                                           monotonic_clock_us() + writeable_wait_us);
    }
}
