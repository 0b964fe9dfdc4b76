// Start-up, main loop and ordered stop of the daemon.
#pragma once

/// Runs the whole daemon; returns the process exit status.
int run_daemon(int argc, char** argv);
