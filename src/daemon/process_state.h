// Process-wide state of the daemon shell: switches, signal counters, the
// command server endpoint and the fixed paths.  The subsystem maps are
// declared by their own headers and defined, in construction order, beside
// these.
#pragma once

#include "comm_socket_v4.h"

/// Set by "-f": run without a usable configuration.
extern bool force_run;
/// Stop signals (SIGINT, SIGTERM, SIGQUIT) received so far.
extern int DIEsig;
/// SIGHUPs received since the last reload.
extern int reload_config;
/// The local command server endpoint, or null.
extern comm_socket_v4* server_socket;
/// Where the local command server listens.
extern const char* const server_socket_path;
/// Where the process id is written while the daemon runs.
extern const char* const pid_file_path;
