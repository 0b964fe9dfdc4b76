#include "daemon/main_loop.h"

#include "appliance_util.h"
#include "config/configuration.h"
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "daemon/pass_limits.h"
#include "daemon/process_state.h"
#include "daemon/service_manager.h"
#include "rendermgr/channel_states.h"
#include "rendermgr/channels.h"
#include "service/command_server.h"
#include "service/send_budget.h"
#include "service/state_file.h"
#include "trigger/trigger_access.h"
#include "trigger/trigger_listener.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr uint64_t channel_refresh_interval_us = 5000000;

/// How a pass waits and what its services may do: the two modes differ in
/// nothing else.
struct PassMode {
    void (*wait)(MainLoop& loop);
    PassBudget budget;
};

// Classic: a fixed sleep, and every service gets its ten calls.  The window
// is the pass itself, so its limits are those ten calls.
void sleep_one_interval(MainLoop& loop)
{
    usleep(pass_interval_us);
    open_window(loop.window, monotonic_clock_us());
}

// Waking: wait until something needs the daemon, also for the watchdog's
// keep-alive; a service's calls end at the first that finds nothing, and the
// window runs on over as many passes as come within it.
void wait_for_work(MainLoop& loop)
{
    wait_for_input(loop.window, std::min(loop.next_refresh_us, service_manager_watchdog_due_us()));
}

constexpr PassMode classic_mode{sleep_one_interval, PassBudget{calls_per_pass, false}};
constexpr PassMode waking_mode{wait_for_work, PassBudget{calls_per_pass, true}};

// The channel refresh runs on the first pass too, right after the one at
// start-up: the second finds every endpoint in place and attempts nothing
// twice.
void refresh_channels_when_due(uint64_t& next_refresh_us, uint64_t now)
{
    if (now < next_refresh_us)
        return;
    uint64_t after_now = now + channel_refresh_interval_us;
    uint64_t after_last = next_refresh_us + channel_refresh_interval_us;
    next_refresh_us = after_now > after_last ? after_now : after_last;
    known_channels_update();
    connect_manage();
    retry_state_file();
}

}  // namespace

// The mode is taken once per pass, so a reload inside the pass changes it
// from the next one on.
void main_loop_pass(MainLoop& loop)
{
    const PassMode& mode = daemon_settings.wake_on_input ? waking_mode : classic_mode;
    open_send_budgets();
    uint64_t now = monotonic_clock_us();
    refresh_channels_when_due(loop.next_refresh_us, now);
    service_manager_pass(now);
    uint64_t wait_start = monotonic_clock_us();
    mode.wait(loop);
    uint64_t wait_end = monotonic_clock_us();
    reload_if_requested();
    connect_idle();
    serve_command_server_rounds(loop.window, mode.budget);
    serve_tcp_steps(mode.budget);
    uint64_t ended = monotonic_clock_us();
    note_pass(now, ended, wait_end - wait_start);
    note_channel_states(ended);
}

void reload_if_requested()
{
    if (reload_config <= 0)
        return;
    // SIGHUP is held back only while the count is reported and cleared; one
    // arriving meanwhile is delivered at the unblock and reloads next pass.
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    sigprocmask(SIG_BLOCK, &hangup, nullptr);
    fputs("Reloading config, SIGHUP\n", stderr);
    reload_config = 0;
    sigprocmask(SIG_UNBLOCK, &hangup, nullptr);

    service_manager_reloading();
    configuration.clear();
    bool loaded = note_reload(load_configuration());
    if (!loaded)
        fputs("Warning: Configuration load failure\n", stderr);
    follow_state_file_setting();
    follow_trigger_access_settings();
    service_manager_reloaded(loaded);
}

void serve_command_server_rounds(PassWindow& window, const PassBudget& budget)
{
    for (int call = 0; call < budget.calls && window.server_rounds < calls_per_pass; ++call) {
        ServerRound round = serve_command_server();
        window.server_unusable = round.result != 0;
        if (round.found_work)
            ++window.server_rounds;
        else if (budget.until_idle)
            return;
    }
}

void serve_tcp_steps(const PassBudget& budget)
{
    for (int call = 0; call < budget.calls; ++call)
        if (!service_tcp_step() && budget.until_idle)
            return;
}
