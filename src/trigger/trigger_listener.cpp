#include "trigger/trigger_listener.h"

#include "appliance_util.h"
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "daemon/pass_limits.h"
#include "trigger/kept_connections.h"
#include "trigger/trigger_access.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int listen_backlog = 4;

void set_reuse_option(int option, const char* name)
{
    int on = 1;
    if (setsockopt(tcp_trigger_fd, SOL_SOCKET, option, &on, sizeof(on)) != 0)
        fprintf(stderr, "Failed to set %s, %s\n", name, strerror(errno));
}

int fail_listener(const char* what)
{
    fprintf(stderr, "%s, %s\n", what, strerror(errno));
    tcp_trigger_close();
    return -1;
}

// The address was checked when the settings were read, so inet_pton's
// result is not looked at.
int bind_to_port()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, daemon_settings.tcp_listen_address.c_str(), &address.sin_addr);
    address.sin_port = htons(static_cast<uint16_t>(tcp_trigger_port & 0xffff));
    return bind(tcp_trigger_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
}

// The peer's address goes to the tcp_allow check and the status view.  The
// listener is asked first whether anyone waits: on an empty queue accept()
// makes the kernel build a socket and throw it away, ten times a pass.
int accept_pending(sockaddr_in& address)
{
    pollfd listener{tcp_trigger_fd, POLLIN, 0};
    if (poll(&listener, 1, 0) <= 0 || (listener.revents & POLLIN) == 0)
        return -1;
    socklen_t length = sizeof(address);
    return accept(tcp_trigger_fd, reinterpret_cast<sockaddr*>(&address), &length);
}

// The key printed is the one fixed at accept time: a closed client's own
// sock_fd is -1 by now.
void sweep_closed_clients()
{
    for (auto it = tcp_clients.begin(); it != tcp_clients.end();) {
        auto current = it++;
        if (current->second.sock_fd < 0) {
            fprintf(stderr, "Dropping TCP client fd %d\n", current->first);
            forget_kept_connection(current->second);
            tcp_clients.erase(current);
            ++tcp_service_totals.dropped;
        }
    }
}

// Judged after the reads, so that bytes that came during the pass's wait
// count as input.  A connection closed here is swept in the same step.
void close_silent_clients()
{
    if (daemon_settings.tcp_idle_timeout_s == 0)
        return;
    uint64_t now = monotonic_clock_us();
    for (auto& entry : tcp_clients)
        entry.second.close_if_silent(now);
}

// Accepted sockets stay blocking: every receive and send on them asks for
// non-blocking by itself.
void adopt_client(int fd, const sockaddr_in& peer)
{
    assert(tcp_clients.find(fd) == tcp_clients.end());
    fprintf(stderr, "Accepted TCP client fd %d\n", fd);
    // Replies are a few bytes each; sent at once, several answered in one
    // pass do not wait for the peer's delayed acknowledgement of the last.
    int immediately = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &immediately, sizeof(immediately));
    keep_connection(enter_tcp_client(fd, peer));
    ++tcp_service_totals.accepted;
}

// Further callers wait in the listen queue.  A refused connection takes no
// place, so the queue is emptied of them as far as the call's refusals go.
void accept_new_clients()
{
    int refusals_left = tcp_refusals_per_call;
    while (tcp_clients.size() < tcp_client_places && refusals_left > 0) {
        sockaddr_in peer{};
        int fd = accept_pending(peer);
        if (fd < 0)
            return;
        if (admit_trigger_peer(fd, peer))
            adopt_client(fd, peer);
        else
            --refusals_left;
    }
}

/// What a step changes when it finds anything to do.
struct TcpActivity {
    TcpServiceTotals totals;
    uint64_t refused;     ///< connections refused for their address
    uint64_t bytes_read;  ///< by the connections in the table
};

// A connection closed in a step is swept in the same step, so the totals
// tell it even when its bytes leave the sum with it.
TcpActivity tcp_activity()
{
    TcpActivity activity{tcp_service_totals, daemon_counters.refusals.address, 0};
    for (const auto& entry : tcp_clients)
        activity.bytes_read += entry.second.bytes_read;
    return activity;
}

}  // namespace

int tcp_trigger_open()
{
    if (tcp_trigger_fd >= 0)
        return 0;
    tcp_trigger_fd = socket(AF_INET, SOCK_STREAM, 0);
    if (tcp_trigger_fd < 0) {
        fprintf(stderr, "Cannot create socket, %s\n", strerror(errno));
        return -1;
    }
    // Both reuse options let a restarted daemon bind at once; without them
    // it still works, so a failure is only reported.
    set_reuse_option(SO_REUSEADDR, "SO_REUSEADDR");
    set_reuse_option(SO_REUSEPORT, "SO_REUSEPORT");
    if (bind_to_port() != 0)
        return fail_listener("Cannot bind socket");
    if (listen(tcp_trigger_fd, listen_backlog) != 0)
        return fail_listener("Cannot make socket listen");
    // Its result is not looked at: on the socket just made it cannot fail.
    fd_non_block(tcp_trigger_fd);
    tcp_trigger_address = daemon_settings.tcp_listen_address;
    return 0;
}

void tcp_trigger_close()
{
    if (tcp_trigger_fd >= 0) {
        close(tcp_trigger_fd);
        tcp_trigger_fd = -1;
    }
    tcp_trigger_address.clear();
}

void service_all_tcp_clients()
{
    // idle()'s result is not needed: a closed client has set its sock_fd to
    // -1, which is what the sweep looks at.
    for (auto& entry : tcp_clients)
        entry.second.idle();
    close_silent_clients();
    // Sweeping before accepting refills a place freed in this very step.
    sweep_closed_clients();
    accept_new_clients();
    report_refusals_due();
}

TCPTriggerClient& enter_tcp_client(int fd, const sockaddr_in& peer)
{
    TCPTriggerClient& client = tcp_clients[fd];
    client.take_fd(fd);
    client.peer = peer;
    client.window_left = tcp_bytes_per_window;
    return client;
}

void drop_all_tcp_clients()
{
    while (!tcp_clients.empty())
        tcp_clients.erase(tcp_clients.begin());
}

bool service_tcp_step()
{
    TcpActivity before = tcp_activity();
    service_all_tcp_clients();
    TcpActivity after = tcp_activity();
    return after.totals.accepted != before.totals.accepted || after.totals.dropped != before.totals.dropped ||
           after.refused != before.refused || after.bytes_read != before.bytes_read;
}

void open_tcp_window()
{
    for (auto& entry : tcp_clients)
        entry.second.window_left = tcp_bytes_per_window;
}

// A stalled line and a spent budget are not waited on: their bytes would
// wake the loop without being read.  A stalled line exists only while
// close_long_lines is off; with it, the line closes its connection in the
// read that completes it.  Every open connection, waited on or not, wakes
// the loop when its idle time is up.
void tcp_wait_descriptors(std::vector<pollfd>& fds, uint64_t& wake_at, bool& budget_spent)
{
    if (tcp_trigger_fd >= 0 && tcp_clients.size() < tcp_client_places)
        fds.push_back(pollfd{tcp_trigger_fd, POLLIN, 0});
    for (const auto& entry : tcp_clients) {
        const TCPTriggerClient& client = entry.second;
        if (client.sock_fd < 0) {
            wake_at = 0;
            continue;
        }
        wake_at = std::min(wake_at, client.silence_deadline());
        if (client.window_left == 0)
            budget_spent = true;
        else if (!client.stalled())
            fds.push_back(pollfd{client.sock_fd, POLLIN, 0});
    }
    refusal_line_wake(wake_at);
}
