// The passes of the main loop.  Two modes share one pass: the classic one
// sleeps a fixed interval, the waking one (`wake_on_input`) waits until
// something needs the daemon; then both run the same services in the same
// order within the same limits.  The services do not know which mode runs
// them: they are told what they may do and answer what they did.
#pragma once

#include "daemon/input_wait.h"

#include <cstdint>

/// What the services may do in one pass.
struct PassBudget {
    int calls;        ///< calls of each service at most
    bool until_idle;  ///< a service's calls end at the first that finds nothing
};

/// What the main loop keeps from pass to pass.
struct MainLoop {
    uint64_t next_refresh_us = 0;  ///< when the channels are next refreshed; 0 refreshes at once
    PassWindow window;             ///< the budget window
};

/// One pass of the main loop in the mode that the settings in force ask for.
void main_loop_pass(MainLoop& loop);
/// Reloads the configuration if SIGHUP was seen since the last pass.
void reload_if_requested();
/// The command-server rounds of a pass: up to `budget.calls`, and no more
/// in the window than its rounds that find work allow.
void serve_command_server_rounds(PassWindow& window, const PassBudget& budget);
/// The TCP steps of a pass: up to `budget.calls`, each connection reading
/// no more than its window's budget.
void serve_tcp_steps(const PassBudget& budget);
