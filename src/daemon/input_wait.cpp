#include "daemon/input_wait.h"

#include "appliance_util.h"
#include "daemon/pass_limits.h"
#include "daemon/process_state.h"
#include "rendermgr/channels.h"
#include "rendermgr/endpoint_waiting.h"
#include "trigger/trigger_listener.h"

#include <csignal>
#include <ctime>
#include <poll.h>

namespace {

// What needs the daemon, into the window's watch list; the time at which it
// needs the daemon although nothing arrives.  A server whose last round
// found no usable endpoint is not watched: its descriptors may stay ready
// for good, so it is given a round once per window, as a classic pass would.
uint64_t collect_watched(PassWindow& window, uint64_t wake_by)
{
    window.watched.clear();
    uint64_t wake_at = wake_by;
    bool budget_spent = false;
    tcp_wait_descriptors(window.watched, wake_at, budget_spent);
    if (window.server_rounds >= calls_per_pass || window.server_unusable)
        budget_spent = true;
    else if (server_socket != nullptr)
        append_endpoint_descriptors(server_socket, window.watched, wake_at);
    connect_wait_descriptors(window.watched, wake_at);
    if (budget_spent && window.end_us < wake_at)
        wake_at = window.end_us;
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

void open_window(PassWindow& window, uint64_t now_us)
{
    window.end_us = now_us + pass_interval_us;
    window.server_rounds = 0;
    open_tcp_window();
}

// The counted signals are held back from the test of the counters until
// the wait has begun: ppoll lets them in atomically, so one arriving in
// between ends the wait instead of being noticed only at its end.  Outside
// this wait they stay deliverable, so a pass held by a local client can
// still be ended by the tenth stop signal.
void wait_for_input(PassWindow& window, uint64_t wake_by)
{
    uint64_t now = monotonic_clock_us();
    if (now >= window.end_us)
        open_window(window, now);
    uint64_t wake_at = collect_watched(window, wake_by);
    sigset_t counted = counted_signals();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &counted, &before);
    if (DIEsig == 0 && reload_config == 0) {
        timespec timeout = time_until(wake_at, monotonic_clock_us());
        ppoll(window.watched.data(), window.watched.size(), &timeout, &before);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}
