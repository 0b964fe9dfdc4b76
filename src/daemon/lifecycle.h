// Start-up, main loop, reload and ordered stop of the daemon.
#pragma once

/// Runs the whole daemon; returns the process exit status.
int run_daemon(int argc, char** argv);

/// Reloads the configuration if SIGHUP was seen since the last pass.
void reload_if_requested();
