// How the tools end on SIGINT and SIGTERM without missing one.
#pragma once

#include <csignal>

/// Blocks SIGINT and SIGTERM, sends them to `handler` from now on, and
/// returns the mask to wait with (ppoll, pselect): the old mask with both
/// let through, so a stop request arrives only while the tool waits and
/// never between its test of the stop flag and the wait.
sigset_t catch_stop_signals(void (*handler)(int));
