#include "service/client_drop.h"

// The appliance's own packet-socket library offers no way to end a peer's
// connection from the server's side: the client stays connected and only
// the packet it did not take is given up.
bool disconnect_local_client(comm_socket_v4_client*)
{
    return false;
}
