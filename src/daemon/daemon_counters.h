// What the daemon counts for the operator's status view.  Nothing in the
// daemon's own behaviour reads these figures; they only grow, as plain
// integers, so counting costs no allocation on any pass.
#pragma once

#include <cstdint>

/// What the daemon refused, by reason; each refusal also has its stderr line.
struct RefusalCounters {
    uint64_t address = 0;          ///< TCP connections from an address tcp_allow does not list
    uint64_t owner = 0;            ///< unregisters of an item another uid registered
    uint64_t local_clients = 0;    ///< local connections beyond max_local_clients
    uint64_t items = 0;            ///< registers beyond max_items
    uint64_t item_name_bytes = 0;  ///< registers of a name longer than max_item_name_bytes
};

/// Counters since start, the last configuration load and the pass figures.
struct DaemonCounters {
    uint64_t started_us;               ///< monotonic time at process start
    uint64_t triggers = 0;             ///< messages whose command is a trigger, dispatched
    uint64_t notifies_sent = 0;        ///< "notify" packets taken by a local client
    uint64_t item_starts = 0;          ///< persistent media item starts delivered
    uint64_t item_start_failures = 0;  ///< starts the media-item service did not take
    uint64_t tcp_reply_failures = 0;   ///< TCP acknowledgements that could not be sent whole
    uint64_t client_send_failures = 0; ///< replies and "notify" packets a local client lost
    uint64_t reloads = 0;              ///< configuration reloads (SIGHUP) tried
    uint64_t reload_failures = 0;      ///< of those, the ones that failed to load
    uint64_t last_load_us = 0;         ///< monotonic time of the last load, 0 before the first
    bool last_load_ok = false;         ///< whether that load succeeded
    uint64_t passes = 0;               ///< passes of the main loop completed
    uint64_t slowest_pass_work_us = 0; ///< longest work of one pass, sleeping excluded
    RefusalCounters refusals;

    DaemonCounters();
};

/// The daemon's counters.
extern DaemonCounters daemon_counters;

/// Records the time and the outcome of a configuration load; answers `loaded`.
bool note_configuration_load(bool loaded);
/// Records a reload (SIGHUP) and its outcome, as a load; answers `loaded`.
bool note_reload(bool loaded);
/// Counts one persistent media item start by the media-item library's
/// result (0 delivered, anything else not).
void note_item_start(int result);
/// Counts one pass of the main loop that ran from `started_us` to
/// `ended_us` (monotonic) and slept `slept_us` of that time.
void note_pass(uint64_t started_us, uint64_t ended_us, uint64_t slept_us);
