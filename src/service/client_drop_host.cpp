#include "service/client_drop.h"

bool disconnect_local_client(comm_socket_v4_client* client)
{
    comm_socket_v4_disconnect_client(client);
    return true;
}
