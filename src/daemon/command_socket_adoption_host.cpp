#include "daemon/command_socket_adoption.h"

#include "comm_socket_v4_host.h"

bool adopt_command_socket(comm_socket_v4* server, int fd)
{
    return comm_socket_v4_adopt_server(server, fd) == 0;
}
