#include "daemon/service_manager.h"

#include "appliance_util.h"
#include "config/configuration.h"
#include "rendermgr/channels.h"
#include "rendermgr/render_manager_connection.h"
#include "service/command_server.h"
#include "trigger/trigger_listener.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <systemd/sd-daemon.h>

namespace {

// What a status line counts; a pass compares them with the last line sent.
struct Counts {
    size_t sections = 0;
    size_t tcp_connections = 0;
    size_t local_clients = 0;
    size_t listening = 0;
    size_t channels_open = 0;
    size_t channels = 0;

    bool operator!=(const Counts& other) const
    {
        return sections != other.sections || tcp_connections != other.tcp_connections ||
               local_clients != other.local_clients || listening != other.listening ||
               channels_open != other.channels_open || channels != other.channels;
    }
};

bool listening_manager = false;
uint64_t watchdog_interval_us = 0;
uint64_t watchdog_due_us = service_manager_never;
// The last load's outcome heads every status line until the next reload,
// so that a failed reload stays visible after later changes of the counts.
const char* status_head = "Running";
Counts reported;

Counts current_counts()
{
    Counts counts;
    counts.sections = configuration.size();
    counts.tcp_connections = tcp_clients.size();
    counts.local_clients = server_socket_clients.size();
    for (const auto& client : server_socket_clients)
        counts.listening += client.second.all_triggers ? 1 : 0;
    counts.channels = rendermgr_conn.size();
    for (const auto& channel : rendermgr_conn)
        counts.channels_open += channel.second != nullptr && channel.second->open ? 1 : 0;
    return counts;
}

// Sends `state` (one or more "NAME=VALUE" lines, or none) followed by the
// status line for the counts of now.
void notify_with_status(const char* state)
{
    reported = current_counts();
    char message[512];
    snprintf(message, sizeof(message),
             "%sSTATUS=%s; event sections %zu; TCP connections %zu; local clients %zu, listening %zu; "
             "channels open %zu of %zu",
             state, status_head, reported.sections, reported.tcp_connections, reported.local_clients,
             reported.listening, reported.channels_open, reported.channels);
    sd_notify(0, message);
}

// The service manager wants CLOCK_MONOTONIC itself, whatever clock the
// appliance's utilities read.
uint64_t clock_monotonic_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

void read_watchdog_request()
{
    uint64_t period_us = 0;
    watchdog_interval_us = 0;
    watchdog_due_us = service_manager_never;
    if (sd_watchdog_enabled(0, &period_us) > 0 && period_us >= 2) {
        watchdog_interval_us = period_us / 2;
        watchdog_due_us = monotonic_clock_us() + watchdog_interval_us;
    }
}

}  // namespace

void service_manager_ready()
{
    const char* socket = getenv("NOTIFY_SOCKET");
    listening_manager = socket != nullptr && socket[0] != '\0';
    if (!listening_manager) {
        watchdog_due_us = service_manager_never;
        return;
    }
    status_head = "Running";
    read_watchdog_request();
    notify_with_status("READY=1\n");
}

void service_manager_reloading()
{
    if (!listening_manager)
        return;
    char message[64];
    snprintf(message, sizeof(message), "RELOADING=1\nMONOTONIC_USEC=%" PRIu64, clock_monotonic_us());
    sd_notify(0, message);
}

void service_manager_reloaded(bool loaded)
{
    if (!listening_manager)
        return;
    status_head = loaded ? "Reloaded" : "Reload failed";
    notify_with_status("READY=1\n");
}

void service_manager_stopping()
{
    if (listening_manager)
        sd_notify(0, "STOPPING=1");
}

void service_manager_pass(uint64_t now_us)
{
    if (!listening_manager)
        return;
    if (now_us >= watchdog_due_us) {
        sd_notify(0, "WATCHDOG=1");
        watchdog_due_us = now_us + watchdog_interval_us;
    }
    if (current_counts() != reported)
        notify_with_status("");
}

uint64_t service_manager_watchdog_due_us()
{
    return watchdog_due_us;
}
