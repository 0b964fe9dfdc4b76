// Endpoint life: creation, the role-independent calls, the end.
#include "comm_internal.h"

#include <new>

comm_socket_v4* comm_socket_v4_create()
{
    auto* state = new (std::nothrow) comm_socket_v4_endpoint_state;
    if (state == nullptr)
        return nullptr;
    auto* sock = new (std::nothrow) comm_socket_v4{-1, 0, 0, {}, 0, state};
    if (sock == nullptr)
        delete state;
    return sock;
}

comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* sock)
{
    if (sock == nullptr)
        return nullptr;
    comm_socket_v4_close(sock);
    for (comm_socket_v4_client* peer : std::vector<comm_socket_v4_client*>(sock->clients))
        comm_socket_v4_free_client(peer);
    delete sock->state;
    delete sock;
    return nullptr;
}

void comm_socket_v4_close(comm_socket_v4* sock)
{
    if (sock == nullptr)
        return;
    if (sock->state->server)
        server_shut(sock);
    else
        client_shut(sock);
}

void comm_socket_v4_set_connect_timeout(comm_socket_v4* sock, unsigned long usec)
{
    if (sock != nullptr)
        sock->state->connect_timeout_us = usec;
}

void comm_socket_v4_set_connect_timeout_routine(comm_socket_v4* sock, unsigned long usec)
{
    if (sock != nullptr)
        sock->state->connect_retry_us = usec;
}

int comm_socket_v4_idle(comm_socket_v4* sock)
{
    if (sock == nullptr)
        return -1;
    return sock->state->server ? server_idle(sock) : client_idle(sock);
}
