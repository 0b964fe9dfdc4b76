#include "rendermgr/endpoint_waiting.h"

#include "comm_socket_v4_host.h"

#include <poll.h>

// The library fills the room it is given and says how much it needed; the
// vector keeps its capacity from pass to pass, so once it has grown to the
// endpoints' needs a wait allocates nothing.
void append_endpoint_descriptors(comm_socket_v4* sock, std::vector<pollfd>& fds, uint64_t& wake_at)
{
    size_t at = fds.size();
    fds.resize(fds.capacity() > at ? fds.capacity() : at + 1);
    size_t needed = comm_socket_v4_poll_descriptors(sock, fds.data() + at, fds.size() - at, &wake_at);
    if (needed > fds.size() - at) {
        fds.resize(at + needed);
        comm_socket_v4_poll_descriptors(sock, fds.data() + at, needed, &wake_at);
    }
    fds.resize(at + needed);
}
