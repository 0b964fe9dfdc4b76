#include "service/local_client_limit.h"

#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "service/client_drop.h"
#include "service/command_server.h"

#include <cinttypes>
#include <cstdio>

bool admit_local_client(comm_socket_v4_client* client, unsigned long index)
{
    uint64_t limit = daemon_settings.max_local_clients;
    if (limit == 0 || server_socket_clients.size() < limit)
        return true;
    ++daemon_counters.refusals.local_clients;
    bool disconnected = disconnect_local_client(client);
    fprintf(stderr, "* client %lu is over max_local_clients %" PRIu64 ", %s\n", index, limit,
            disconnected ? "disconnecting" : "kept: this build cannot disconnect it");
    return !disconnected;
}
