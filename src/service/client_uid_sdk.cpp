#include "service/client_uid.h"

#include <cstdio>

// The appliance's own packet-socket library does not tell who connected:
// items get no owner and every unregister is allowed, as in the classic
// daemon.  Only item_owners asks, so the line says so once, the first time
// that setting needs a uid.
std::optional<uid_t> local_client_uid(comm_socket_v4_client*)
{
    static bool said = false;
    if (!said)
        fputs("item_owners: this build cannot tell which user a local client is, "
              "items get no owner and anyone may unregister them\n",
              stderr);
    said = true;
    return std::nullopt;
}
