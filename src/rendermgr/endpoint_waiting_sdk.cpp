#include "rendermgr/endpoint_waiting.h"

#include "appliance_util.h"
#include "daemon/pass_limits.h"

#include <algorithm>
#include <poll.h>

// The appliance's own library does not tell which descriptors it serves
// beyond the endpoint's own socket (a server's clients among them), so the
// loop also comes back after a classic pass to give it its idle call.
void append_endpoint_descriptors(comm_socket_v4* sock, std::vector<pollfd>& fds, uint64_t& wake_at)
{
    if (sock->fd >= 0) {
        short events = (sock->connect_pending & 1U) != 0 ? POLLIN | POLLOUT : POLLIN;
        fds.push_back(pollfd{sock->fd, events, 0});
    }
    wake_at = std::min(wake_at, monotonic_clock_us() + pass_interval_us);
}
