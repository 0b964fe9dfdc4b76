#include "daemon/daemon_counters.h"

#include "appliance_util.h"

DaemonCounters::DaemonCounters() : started_us(monotonic_clock_us()) {}

bool note_configuration_load(bool loaded)
{
    daemon_counters.last_load_us = monotonic_clock_us();
    daemon_counters.last_load_ok = loaded;
    return loaded;
}

bool note_reload(bool loaded)
{
    ++daemon_counters.reloads;
    if (!loaded)
        ++daemon_counters.reload_failures;
    return note_configuration_load(loaded);
}

void note_item_start(int result)
{
    if (result == 0)
        ++daemon_counters.item_starts;
    else
        ++daemon_counters.item_start_failures;
}

void note_pass(uint64_t started_us, uint64_t ended_us, uint64_t slept_us)
{
    uint64_t spent = ended_us > started_us ? ended_us - started_us : 0;
    uint64_t work = spent > slept_us ? spent - slept_us : 0;
    ++daemon_counters.passes;
    if (work > daemon_counters.slowest_pass_work_us)
        daemon_counters.slowest_pass_work_us = work;
}
