// What the daemon tells a service manager that started it: readiness,
// reloads, a one-line status and the watchdog's keep-alive.  Everything here
// is switched on by NOTIFY_SOCKET in the environment at the end of start-up;
// without it every call returns at once, making no system call and
// allocating nothing.
#pragma once

#include <cstdint>

/// The due time of a watchdog that nobody asked for.
constexpr uint64_t service_manager_never = UINT64_MAX;

/// Start-up is complete: reads NOTIFY_SOCKET and WATCHDOG_USEC (and
/// WATCHDOG_PID) and sends "READY=1" with a status line.
void service_manager_ready();

/// A reload begins: "RELOADING=1" with "MONOTONIC_USEC=" of CLOCK_MONOTONIC.
void service_manager_reloading();

/// A reload ended: "READY=1" with a status line that says whether the load
/// failed.  The failure stays at the head of every status line until the
/// next reload.
void service_manager_reloaded(bool loaded);

/// The ordered stop begins: "STOPPING=1".
void service_manager_stopping();

/// Once per pass of the main loop, with `now_us` from monotonic_clock_us():
/// "WATCHDOG=1" when it is due, and a status line when the number of TCP
/// connections, local clients, listening clients or open channels changed
/// since the last one.
void service_manager_pass(uint64_t now_us);

/// The monotonic_clock_us() time at or after which the next pass sends
/// "WATCHDOG=1"; service_manager_never when no watchdog was asked for (or
/// no service manager listens).  Keep-alives fall due every half watchdog
/// period, so a loop that waits for input and wakes no later than this time
/// to run a pass keeps the watchdog content with two per period.
uint64_t service_manager_watchdog_due_us();
