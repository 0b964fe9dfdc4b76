#include "trigger/trigger_access.h"

#include "appliance_util.h"
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "trigger/trigger_listener.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

void close_connections_no_longer_allowed()
{
    for (auto& entry : tcp_clients)
        entry.second.close_if_refused(daemon_settings.tcp_allow);
}

}  // namespace

// Closed unread: a peer that sent bytes already gets a reset, one that did
// not an end of stream, and neither ever gets a reply.
bool admit_trigger_peer(int fd, const sockaddr_in& peer)
{
    uint32_t address = ntohl(peer.sin_addr.s_addr);
    if (daemon_settings.tcp_allow.allows(address))
        return true;
    close(fd);
    ++daemon_counters.refusals.address;
    tcp_refusal_lines.count(address, monotonic_clock_us());
    return false;
}

void report_refusals_due()
{
    if (tcp_refusal_lines.waiting())
        tcp_refusal_lines.report_due(monotonic_clock_us());
}

void refusal_line_wake(uint64_t& wake_at)
{
    if (tcp_refusal_lines.waiting())
        wake_at = std::min(wake_at, tcp_refusal_lines.next_line_us());
}

void report_listen_address_in_force()
{
    const std::string& wanted = daemon_settings.tcp_listen_address;
    if (tcp_trigger_fd < 0)
        return;
    if (tcp_trigger_address.empty()) {
        if (wanted != tcp_listen_everywhere)
            fprintf(stderr,
                    "Warning: [daemon] tcp_listen_address = \"%s\" ignored, the trigger listener was handed "
                    "over by the service manager\n",
                    wanted.c_str());
    } else if (wanted != tcp_trigger_address) {
        fprintf(stderr,
                "Warning: [daemon] tcp_listen_address = \"%s\" takes a restart, the trigger listener stays on "
                "%s\n",
                wanted.c_str(), tcp_trigger_address.c_str());
    }
}

void follow_trigger_access_settings()
{
    report_listen_address_in_force();
    close_connections_no_longer_allowed();
}
