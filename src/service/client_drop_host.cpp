#include "service/client_drop.h"

#include "comm_socket_v4_host.h"

bool disconnect_local_client(comm_socket_v4_client* client)
{
    comm_socket_v4_disconnect_client(client);
    return true;
}
