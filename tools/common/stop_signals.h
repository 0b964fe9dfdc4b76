// How the tools end on SIGINT and SIGTERM without missing one.
#pragma once

#include <csignal>

/// Set once SIGINT or SIGTERM arrived after catch_stop_signals().
extern volatile sig_atomic_t stop_requested;

/// Blocks SIGINT and SIGTERM, lets them set `stop_requested` from now on,
/// and returns the mask to wait with (ppoll, pselect): the old mask with
/// both let through, so a stop request arrives only while the tool waits
/// and never between its test of the flag and the wait.
sigset_t catch_stop_signals();
