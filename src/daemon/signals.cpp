#include "daemon/signals.h"

#include "daemon/process_state.h"

#include <cstdlib>

void sigma(int)
{
    // The first request stops the daemon at the end of the current pass; a
    // pass that never ends (a local client that never reads) is ended by the
    // tenth, at the price of the orderly stop.
    if (++DIEsig > 9)
        abort();
}

void reload_config_signal(int)
{
    ++reload_config;
}
