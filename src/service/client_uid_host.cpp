#include "service/client_uid.h"

#include "comm_socket_v4_host.h"

std::optional<uid_t> local_client_uid(comm_socket_v4_client* client)
{
    uid_t uid = 0;
    if (comm_socket_v4_client_uid(client, &uid) != 0)
        return std::nullopt;
    return uid;
}
