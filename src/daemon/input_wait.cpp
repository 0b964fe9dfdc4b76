#include "daemon/input_wait.h"

#include "appliance_util.h"
#include "daemon/process_state.h"
#include "rendermgr/channels.h"
#include "rendermgr/endpoint_waiting.h"
#include "service/command_server.h"
#include "trigger/trigger_listener.h"

#include <csignal>
#include <ctime>
#include <poll.h>
#include <vector>

namespace {

constexpr int steps_per_pass = 10;

uint64_t window_end = 0;
int server_rounds = 0;
/// The last round found no usable endpoint: its descriptors may stay ready
/// for good, so it is given a round once per window, as a classic pass would.
bool server_unusable = false;
/// Kept from wait to wait, so that a wait allocates nothing once it has
/// grown to the number of peers.
std::vector<pollfd> watched;

void open_window_if_ended(uint64_t now)
{
    if (now < window_end)
        return;
    window_end = now + input_window_us;
    server_rounds = 0;
    open_tcp_window();
}

// What needs the daemon, into `watched`; the time at which it needs the
// daemon although nothing arrives.
uint64_t collect_watched(uint64_t next_refresh)
{
    watched.clear();
    uint64_t wake_at = next_refresh;
    bool budget_spent = false;
    tcp_wait_descriptors(watched, wake_at, budget_spent);
    if (server_rounds >= server_rounds_per_window || server_unusable)
        budget_spent = true;
    else if (server_socket != nullptr)
        append_endpoint_descriptors(server_socket, watched, wake_at);
    connect_wait_descriptors(watched, wake_at);
    if (budget_spent && window_end < wake_at)
        wake_at = window_end;
    return wake_at;
}

timespec time_until(uint64_t wake_at, uint64_t now)
{
    uint64_t wait_us = wake_at > now ? wake_at - now : 0;
    return timespec{static_cast<time_t>(wait_us / 1000000), static_cast<long>(wait_us % 1000000) * 1000};
}

sigset_t counted_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGQUIT);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

// The counted signals are held back from the test of the counters until
// the wait has begun: ppoll lets them in atomically, so one arriving in
// between ends the wait instead of being noticed only at its end.  Outside
// this wait they stay deliverable, so a pass held by a local client can
// still be ended by the tenth stop signal.
void wait_for_input(uint64_t next_refresh)
{
    uint64_t now = monotonic_clock_us();
    open_window_if_ended(now);
    uint64_t wake_at = collect_watched(next_refresh);
    sigset_t counted = counted_signals();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &counted, &before);
    if (DIEsig == 0 && reload_config == 0) {
        timespec timeout = time_until(wake_at, monotonic_clock_us());
        ppoll(watched.data(), watched.size(), &timeout, &before);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

void serve_command_server_in_window()
{
    for (int step = 0; step < steps_per_pass && server_rounds < server_rounds_per_window; ++step) {
        int result = handle_server_socket();
        server_unusable = result != 0;
        if (!server_round_found_work())
            return;
        ++server_rounds;
        if (result != 0)
            return;
    }
}

void serve_tcp_clients_in_window()
{
    for (int step = 0; step < steps_per_pass; ++step)
        if (!service_tcp_clients_in_window())
            return;
}
