// Appliance utilities, host build.
#pragma once

#include <cstdint>
#include <cstdio>

/// CLOCK_MONOTONIC in microseconds.
uint64_t monotonic_clock_us();

/// Sets O_NONBLOCK on `fd`: 0, or -1 on failure.
int fd_non_block(int fd);

/// Unblocks SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM and
/// SIGCHLD, and puts those of them that the parent left ignored back to the
/// default action, so that an inherited mask cannot deafen the process.
void util_check_and_unmask_common_signals();

/// Writes one line per open descriptor, "fd N -> TARGET" in ascending order,
/// then a count line, to `out`.
void fd_debug_dump_open_files(FILE* out);
